/*
 * Max pooling, 3-D: the window maximum and, when write_index is set, its flat index in the plane.
 * One work item per output element; helpers and definitions in "pool.h".
 */
// #include "common.h"
// #include "pool.h"

__kernel void maxpool3d(DECL_TENSOR1D(src), DECL_TENSOR1D(dst), DECL_TENSOR1D(idx),
                        int write_index, int4 isz, int4 osz, int4 k, int4 s, int4 p, int4 dl) {
  int4 o;
  const long plane = pool_item(osz, &o);
  if (plane < 0) return;
  const long g = pool_index(plane, o, osz);
  int index;
  const float v = pool_max_window(POOL_SRC(src) + plane * pool_volume(isz), isz, o, k, s, p, dl,
                                  &index);
  POOL_STORE(v, POOL_DST(dst), g);
  if (write_index) ((__global IDX_DTYPE *)TENSOR_BASE(idx))[g] = index;
}
