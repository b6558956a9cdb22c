/*
 * LogNormal: exp(mean + stddev * n) for the four normal values n of the
 * first rand4 draw of the work item's Philox stream (as rand_log_normal4).
 * Build definitions: VEC_SIZE (must be 4), VEC_SIZE_LEFTOVER, OUT_DTYPE.
 */
// #include "common.h"
// #include "random.h"

#if VEC_SIZE != 4
#error: Only Support VEC_SIZE == 4
#endif

#define LOG_NORMAL(n) exp(mean + stddev * (n))

__kernel void log_normal_philox(DECL_TENSOR1D(out), DECL_PHILOX_STATE, float mean,
                                float stddev) {
  PHILOX_FIRST_BLOCK(philox_args_seed, get_global_id(0), philox_args_offset, w0, w1, w2, w3);
  BOX_MULLER(w0, w1, n0, n1);
  BOX_MULLER(w2, w3, n2, n3);
  __global OUT_DTYPE *p = (__global OUT_DTYPE *)TENSOR_BASE(out) + RANDOM_WI_OFFSET;
  RANDOM_STORE(p, 0, LOG_NORMAL(n0));
  RANDOM_STORE(p, 1, LOG_NORMAL(n1));
  RANDOM_STORE(p, 2, LOG_NORMAL(n2));
  RANDOM_STORE(p, 3, LOG_NORMAL(n3));
}
