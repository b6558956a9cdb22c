/*
 * Bernoulli: lane k of the first rand_uniform4 draw of the work item's stream
 * gives 1 when u_k <= p_k (the input probability as float), else 0; widths
 * 1-3 use the first lanes.
 * Build definitions: VEC_SIZE (1 to 4), VEC_SIZE_LEFTOVER, DTYPE (input),
 * OUT_DTYPE.
 */
// #include "common.h"
// #include "random.h"

#if VEC_SIZE > 4
#error: Only Support VEC_SIZE <= 4
#endif

#define BERNOULLI_LANE(lane, w)                                                \
  RANDOM_STORE(q, lane,                                                      \
               uniform_from_word(w) <= CONVERT(float, 1, VLOAD(DTYPE, 1, p + (lane))) ? 1.0f \
                                                                                   : 0.0f)

__kernel void bernoulli(DECL_TENSOR1D(in), DECL_TENSOR1D(out), DECL_PHILOX_STATE) {
  PHILOX_FIRST_BLOCK(philox_args_seed, get_global_id(0), philox_args_offset, w0, w1, w2, w3);
  const size_t offset = RANDOM_WI_OFFSET;
  __global const DTYPE *p = (__global const DTYPE *)TENSOR_BASE(in) + offset;
  __global OUT_DTYPE *q = (__global OUT_DTYPE *)TENSOR_BASE(out) + offset;
  BERNOULLI_LANE(0, w0);
#if VEC_SIZE > 1
  BERNOULLI_LANE(1, w1);
#endif
#if VEC_SIZE > 2
  BERNOULLI_LANE(2, w2);
#endif
#if VEC_SIZE > 3
  BERNOULLI_LANE(3, w3);
#endif
}
