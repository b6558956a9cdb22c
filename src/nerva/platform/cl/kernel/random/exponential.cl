/*
 * Exponential: for u uniform in (0, 1), t = (1 - u) / (u + FLT_EPSILON) +
 * FLT_EPSILON and out = lambda * exp2(-lambda * t * log2 e), VEC_SIZE values
 * (the first lanes of one rand_uniform4 draw) per work item.
 * Build definitions: VEC_SIZE (1 to 4), VEC_SIZE_LEFTOVER, OUT_DTYPE.
 */
// #include "common.h"
// #include "random.h"

#if VEC_SIZE > 4
#error: Only Support VEC_SIZE <= 4
#endif

__kernel void exponential(DECL_TENSOR1D(out), DECL_PHILOX_STATE, float lambda) {
  philox4x32_state_t state;
  rand_init(philox_args_seed, get_global_id(0), philox_args_offset, &state);
  const float4 u = rand_uniform4(&state);
  const float4 t = (1.0f - u) / (u + FLT_EPSILON) + FLT_EPSILON;
  const float4 v = lambda * exp2(-lambda * t * M_LOG2E_F);
  __global OUT_DTYPE *p = (__global OUT_DTYPE *)TENSOR_BASE(out) + RANDOM_WI_OFFSET;
  VSTORE(OUT_DTYPE, VEC_SIZE, CONVERT(OUT_DTYPE, VEC_SIZE, RANDOM_LANES(VEC_SIZE, v)), p);
}
