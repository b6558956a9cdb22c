/*
 * im2col (torch unfold): column (c * kh + i) * kw + j, position l = oh * OW + ow holds input (c, oh * s - p + i * dl, ow * s - p + j * dl), zero outside. x runs over l, y over the (plane, i, j) rows.
 * One work item per column element; helpers and definitions in "pool.h".
 */
// #include "common.h"
// #include "pool.h"

__kernel void im2col(DECL_TENSOR1D(src), DECL_TENSOR1D(dst), int4 isz, int4 osz, int4 k, int4 s,
                     int4 p, int4 dl) {
  const int l = get_global_id(0);
  const long row = get_global_id(1);
  const int blocks = osz.s1 * osz.s2;
  const int kj = row % k.s2;
  const int ki = (row / k.s2) % k.s1;
  const long plane = row / (k.s1 * k.s2);
  if (l >= blocks || plane >= isz.s3) return;
  const int oh = l / osz.s2, ow = l - oh * osz.s2;
  const int ih = oh * s.s1 - p.s1 + ki * dl.s1;
  const int iw = ow * s.s2 - p.s2 + kj * dl.s2;
  float v = 0.0f;
  if (ih >= 0 && ih < isz.s1 && iw >= 0 && iw < isz.s2) {
    v = POOL_LOAD(POOL_SRC(src), (plane * isz.s1 + ih) * isz.s2 + iw);
  }
  POOL_STORE(v, POOL_DST(dst), row * blocks + l);
}
