/*
 * im2col (torch unfold): column row (c * kh + i) * kw + j, position
 * l = oh * OW + ow holds input (c, oh * s - p + i * dl, ow * s - p + j * dl),
 * zero outside. One work item per block of POOL_V positions of one output
 * height of one column row (rows: column rows x OH); blocks inside the input
 * take vector loads, border blocks one element per position. See "pool.h".
 */
// #include "common.h"
// #include "pool.h"

__kernel void im2col(DECL_TENSOR1D(src), DECL_TENSOR1D(dst), int ih, int iw, int oh, int ow,
                     int rows, int kh, int kw, int sh, int sw, int ph, int pw, int dh, int dw) {
  const int b = get_global_id(0), row = get_global_id(1);
  if (row >= rows || b * POOL_V >= ow) return;
  const int r = row / oh, y = row - r * oh;
  const int plane = r / (kh * kw), tap = r - plane * (kh * kw);
  const int ki = tap / kw, kj = tap - ki * kw;
  const int h = y * sh - ph + ki * dh;
  const int x0 = pool_block_start(b, ow);
  const int w0 = x0 * sw - pw + kj * dw;
  __global DTYPE *out = POOL_DST(dst) + (long)row * ow + x0;
  if (h < 0 || h >= ih) {
    if (ow >= POOL_V) {
      VSTORE(DTYPE, 8, (pool_vec)(0.0f), out);
    } else {
      for (int x = 0; x < ow; ++x) POOL_STORE(0.0f, out, x);
    }
    return;
  }
  __global const DTYPE *in = POOL_SRC(src) + ((long)plane * ih + h) * iw;
  if (ow >= POOL_V && w0 >= 0 && w0 + (POOL_V - 1) * sw < iw) {
    VSTORE(DTYPE, 8, pool_load_lanes(in + w0, sw, w0, iw), out);
    return;
  }
  for (int x = 0; x < min(POOL_V, ow); ++x) {
    const int w = w0 + x * sw;
    POOL_STORE(w >= 0 && w < iw ? POOL_LOAD(in, w) : 0.0f, out, x);
  }
}
