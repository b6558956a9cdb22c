/*
 * col2im (torch fold): each image element gathers, in (i, j) order, the column entries of the blocks that cover it; osz holds the block grid.
 * One work item per image element; helpers and definitions in "pool.h".
 */
// #include "common.h"
// #include "pool.h"

__kernel void col2im(DECL_TENSOR1D(src), DECL_TENSOR1D(dst), int4 isz, int4 osz, int4 k, int4 s,
                     int4 p, int4 dl) {
  int4 i;
  const long plane = pool_item(isz, &i);
  if (plane < 0) return;
  const long g = pool_index(plane, i, isz);
  const long blocks = (long)osz.s1 * osz.s2;
  __global const DTYPE *col = POOL_SRC(src) + plane * k.s1 * k.s2 * blocks;
  float sum = 0.0f;
  for (int ki = 0; ki < k.s1; ++ki) {
    const int th = i.s1 + p.s1 - ki * dl.s1;
    if (th < 0 || th % s.s1 != 0 || th / s.s1 >= osz.s1) continue;
    for (int kj = 0; kj < k.s2; ++kj) {
      const int tw = i.s2 + p.s2 - kj * dl.s2;
      if (tw < 0 || tw % s.s2 != 0 || tw / s.s2 >= osz.s2) continue;
      sum += POOL_LOAD(col, (ki * k.s2 + kj) * blocks + (th / s.s1) * osz.s2 + tw / s.s2);
    }
  }
  POOL_STORE(sum, POOL_DST(dst), g);
}
