/*
 * Adaptive average pooling, 3-D: windows [floor(o * in / out), ceil((o + 1) * in / out)).
 * One work item per output element; helpers and definitions in "pool.h".
 */
// #include "common.h"
// #include "pool.h"

__kernel void adaptive_avgpool3d(DECL_TENSOR1D(src), DECL_TENSOR1D(dst), int4 isz, int4 osz) {
  int4 o;
  const long plane = pool_item(osz, &o);
  if (plane < 0) return;
  const long g = pool_index(plane, o, osz);
  POOL_STORE(adaptive_avg(POOL_SRC(src) + plane * pool_volume(isz), isz, osz, o), POOL_DST(dst), g);
}
