/*
 * RandNormal: four normal values per work item (two Box-Muller pairs from one
 * rand4 draw), scaled to n * stddev + mean with UPDATE_ARG.
 * Build definitions: VEC_SIZE (must be 4), VEC_SIZE_LEFTOVER, OUT_DTYPE.
 */
// #include "common.h"
// #include "random.h"

#if VEC_SIZE != 4
#error: Only Support VEC_SIZE == 4
#endif

__kernel void random_normal_philox(DECL_TENSOR1D(out), DECL_PHILOX_STATE
#ifdef UPDATE_ARG
                                   , float mean, float stddev
#endif
) {
  philox4x32_state_t state;
  rand_init(philox_args_seed, get_global_id(0), philox_args_offset, &state);
  float4 n = rand_normal4(&state);
#ifdef UPDATE_ARG
  n = n * stddev + mean;
#endif
  __global OUT_DTYPE *p = (__global OUT_DTYPE *)TENSOR_BASE(out) + RANDOM_WI_OFFSET;
  VSTORE(OUT_DTYPE, 4, CONVERT(OUT_DTYPE, 4, n), p);
}
