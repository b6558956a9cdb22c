/*
 * Bernoulli: lane k of one rand_uniform4 draw gives 1 when u_k <= p_k (the
 * input probability as float), else 0; widths 1-3 use the first lanes.
 * Build definitions: VEC_SIZE (1 to 4), VEC_SIZE_LEFTOVER, DTYPE (input),
 * OUT_DTYPE.
 */
// #include "common.h"
// #include "random.h"

#if VEC_SIZE > 4
#error: Only Support VEC_SIZE <= 4
#endif

#define FLOATV NERVA_VEC(float, VEC_SIZE)

__kernel void bernoulli(DECL_TENSOR1D(in), DECL_TENSOR1D(out), DECL_PHILOX_STATE) {
  philox4x32_state_t state;
  rand_init(philox_args_seed, get_global_id(0), philox_args_offset, &state);
  const FLOATV u = RANDOM_LANES(VEC_SIZE, rand_uniform4(&state));
  const size_t offset = RANDOM_WI_OFFSET;
  const FLOATV p = CONVERT(float, VEC_SIZE, VLOAD(DTYPE, VEC_SIZE,
                                                  (__global DTYPE *)TENSOR_BASE(in) + offset));
  const FLOATV v = select((FLOATV)(0.0f), (FLOATV)(1.0f), u <= p);
  VSTORE(OUT_DTYPE, VEC_SIZE, CONVERT(OUT_DTYPE, VEC_SIZE, v),
         (__global OUT_DTYPE *)TENSOR_BASE(out) + offset);
}
