/*
 * Gradient of max pooling, 3-D, from the saved flat indices: each input element sums the gradients of the outputs whose window holds it and whose index names it, so overlapping windows add up without atomics; an index outside its window contributes nothing.
 * One work item per input element; helpers and definitions in "pool.h".
 */
// #include "common.h"
// #include "pool.h"

__kernel void max_pool3d_with_indices_backward(DECL_TENSOR1D(grad_out), DECL_TENSOR1D(idx),
                                               DECL_TENSOR1D(grad_in), int4 isz, int4 osz,
                                               int4 k, int4 s, int4 p, int4 dl) {
  int4 i;
  const long plane = pool_item(isz, &i);
  if (plane < 0) return;
  const long g = pool_index(plane, i, isz);
  const long base = plane * pool_volume(osz);
  const float v = max_pool_grad(POOL_SRC(grad_out) + base,
                                (__global const IDX_DTYPE *)TENSOR_BASE(idx) + base, isz, osz, i, k,
                                s, p, dl);
  POOL_STORE(v, POOL_DST(grad_in), g);
}
