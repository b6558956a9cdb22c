/*
 * RandNormal: four normal values per work item, two Box-Muller pairs from the
 * first rand4 draw of its Philox stream, scaled to n * stddev + mean with
 * UPDATE_ARG.
 * Build definitions: VEC_SIZE (must be 4), VEC_SIZE_LEFTOVER, OUT_DTYPE.
 */
// #include "common.h"
// #include "random.h"

#if VEC_SIZE != 4
#error: Only Support VEC_SIZE == 4
#endif

#ifdef UPDATE_ARG
#define SCALED(n) ((n) * stddev + mean)
#else
#define SCALED(n) (n)
#endif

__kernel void random_normal_philox(DECL_TENSOR1D(out), DECL_PHILOX_STATE
#ifdef UPDATE_ARG
                                   , float mean, float stddev
#endif
) {
  PHILOX_FIRST_BLOCK(philox_args_seed, get_global_id(0), philox_args_offset, w0, w1, w2, w3);
  BOX_MULLER(w0, w1, n0, n1);
  BOX_MULLER(w2, w3, n2, n3);
  __global OUT_DTYPE *p = (__global OUT_DTYPE *)TENSOR_BASE(out) + RANDOM_WI_OFFSET;
  RANDOM_STORE(p, 0, SCALED(n0));
  RANDOM_STORE(p, 1, SCALED(n1));
  RANDOM_STORE(p, 2, SCALED(n2));
  RANDOM_STORE(p, 3, SCALED(n3));
}
