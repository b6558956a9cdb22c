/*
 * LogNormal: exp(mean + stddev * n) for four normal values n per work item.
 * Build definitions: VEC_SIZE (must be 4), VEC_SIZE_LEFTOVER, OUT_DTYPE.
 */
// #include "common.h"
// #include "random.h"

#if VEC_SIZE != 4
#error: Only Support VEC_SIZE == 4
#endif

__kernel void log_normal_philox(DECL_TENSOR1D(out), DECL_PHILOX_STATE, float mean,
                                float stddev) {
  philox4x32_state_t state;
  rand_init(philox_args_seed, get_global_id(0), philox_args_offset, &state);
  const float4 v = rand_log_normal4(&state, mean, stddev);
  __global OUT_DTYPE *p = (__global OUT_DTYPE *)TENSOR_BASE(out) + RANDOM_WI_OFFSET;
  VSTORE(OUT_DTYPE, 4, CONVERT(OUT_DTYPE, 4, v), p);
}
