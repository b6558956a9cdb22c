/*
 * Gradient of adaptive average pooling, 2-D: each input element gathers the outputs whose window covers it.
 * One work item per input element; helpers and definitions in "pool.h".
 */
// #include "common.h"
// #include "pool.h"

__kernel void adaptive_avgpool2d_backward(DECL_TENSOR1D(grad_out), DECL_TENSOR1D(grad_in),
                                          int4 isz, int4 osz) {
  int4 i;
  const long plane = pool_item(isz, &i);
  if (plane < 0) return;
  const long g = pool_index(plane, i, isz);
  POOL_STORE(adaptive_avg_grad(POOL_SRC(grad_out) + plane * pool_volume(osz), isz, osz, i),
             POOL_DST(grad_in), g);
}
