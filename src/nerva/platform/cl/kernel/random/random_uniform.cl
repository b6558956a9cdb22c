/*
 * RandUniform: uniform floats in (0, 1), or low + u * step with UPDATE_RANGE,
 * four per work item from the work item's Philox stream.
 * Build definitions: VEC_SIZE (must be 4), VEC_SIZE_LEFTOVER, OUT_DTYPE.
 */
// #include "common.h"
// #include "random.h"

#if VEC_SIZE != 4
#error: Only Support VEC_SIZE == 4
#endif

__kernel void random_uniform_philox(DECL_TENSOR1D(out), DECL_PHILOX_STATE
#ifdef UPDATE_RANGE
                                    , float low, float step
#endif
) {
  philox4x32_state_t state;
  rand_init(philox_args_seed, get_global_id(0), philox_args_offset, &state);
  float4 u = rand_uniform4(&state);
#ifdef UPDATE_RANGE
  u = u * step + low;
#endif
  __global OUT_DTYPE *p = (__global OUT_DTYPE *)TENSOR_BASE(out) + RANDOM_WI_OFFSET;
  VSTORE(OUT_DTYPE, 4, CONVERT(OUT_DTYPE, 4, u), p);
}
