/*
 * Adaptive max pooling, 2-D: the window maximum (NaN wins, first maximum kept) and, when write_index is set, its flat index in the plane.
 * One work item per output element; helpers and definitions in "pool.h".
 */
// #include "common.h"
// #include "pool.h"

__kernel void adaptive_maxpool2d(DECL_TENSOR1D(src), DECL_TENSOR1D(dst), DECL_TENSOR1D(idx),
                                 int write_index, int4 isz, int4 osz) {
  int4 o;
  const long plane = pool_item(osz, &o);
  if (plane < 0) return;
  const long g = pool_index(plane, o, osz);
  const int4 start = (int4)(adaptive_start(o.s0, isz.s0, osz.s0),
                            adaptive_start(o.s1, isz.s1, osz.s1),
                            adaptive_start(o.s2, isz.s2, osz.s2), 0);
  const int4 end = (int4)(adaptive_end(o.s0, isz.s0, osz.s0), adaptive_end(o.s1, isz.s1, osz.s1),
                          adaptive_end(o.s2, isz.s2, osz.s2), 0);
  /* An adaptive window is a pooling window of its own extent, stride 1 and no padding. */
  int index;
  const float v = pool_max_window(POOL_SRC(src) + plane * pool_volume(isz), isz, (int4)(0),
                                  end - start, (int4)(1), -start, (int4)(1), &index);
  POOL_STORE(v, POOL_DST(dst), g);
  if (write_index) ((__global IDX_DTYPE *)TENSOR_BASE(idx))[g] = index;
}
