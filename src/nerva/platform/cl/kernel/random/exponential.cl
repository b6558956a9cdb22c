/*
 * Exponential: for u uniform in (0, 1), t = (1 - u) / (u + FLT_EPSILON) +
 * FLT_EPSILON and out = lambda * exp2(-lambda * t * log2 e), VEC_SIZE values
 * (the first lanes of the first rand_uniform4 draw of the work item's stream).
 * Build definitions: VEC_SIZE (1 to 4), VEC_SIZE_LEFTOVER, OUT_DTYPE.
 */
// #include "common.h"
// #include "random.h"

#if VEC_SIZE > 4
#error: Only Support VEC_SIZE <= 4
#endif

inline float exponential_from_word(uint w, float lambda) {
  const float u = uniform_from_word(w);
  const float t = (1.0f - u) / (u + FLT_EPSILON) + FLT_EPSILON;
  return lambda * exp2(-lambda * t * M_LOG2E_F);
}

__kernel void exponential(DECL_TENSOR1D(out), DECL_PHILOX_STATE, float lambda) {
  PHILOX_FIRST_BLOCK(philox_args_seed, get_global_id(0), philox_args_offset, w0, w1, w2, w3);
  __global OUT_DTYPE *p = (__global OUT_DTYPE *)TENSOR_BASE(out) + RANDOM_WI_OFFSET;
  RANDOM_STORE(p, 0, exponential_from_word(w0, lambda));
#if VEC_SIZE > 1
  RANDOM_STORE(p, 1, exponential_from_word(w1, lambda));
#endif
#if VEC_SIZE > 2
  RANDOM_STORE(p, 2, exponential_from_word(w2, lambda));
#endif
#if VEC_SIZE > 3
  RANDOM_STORE(p, 3, exponential_from_word(w3, lambda));
#endif
}
