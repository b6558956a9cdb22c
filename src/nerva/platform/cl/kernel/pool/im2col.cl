/*
 * im2col (torch unfold): column row (c * kh + i) * kw + j, position
 * l = oh * OW + ow holds input (c, oh * s - p + i * dl, ow * s - p + j * dl),
 * zero outside. One work item per block of POOL_V positions of one output
 * height of one plane (see "pool.h"), writing that block of every column row
 * of the plane; blocks inside the input take vector loads, border blocks one
 * element per position. im2col_items (GPUs) takes one work item per column
 * position of a plane (see "pool.h"), so consecutive items write consecutive
 * elements of every column row and read neighbouring input elements.
 */
// #include "common.h"
// #include "pool.h"

/* One block of column positions from input row `in` (NULL: outside). */
inline void im2col_block(__global const DTYPE *in, int w0, int iw, int ow, int sw,
                         __global DTYPE *out) {
  if (ow >= POOL_V && in && w0 >= 0 && w0 + (POOL_V - 1) * sw < iw) {
    VSTORE(DTYPE, 8, pool_load_lanes(in + w0, sw, w0, iw), out);
  } else if (ow >= POOL_V && !in) {
    VSTORE(DTYPE, 8, (pool_vec)(0.0f), out);
  } else {
    for (int x = 0; x < min(POOL_V, ow); ++x) {
      const int w = w0 + x * sw;
      POOL_STORE(in && w >= 0 && w < iw ? POOL_LOAD(in, w) : 0.0f, out, x);
    }
  }
}

__kernel void im2col(DECL_TENSOR1D(src), DECL_TENSOR1D(dst), int ih, int iw, int oh, int ow,
                     int planes, int kh, int kw, int sh, int sw, int ph, int pw, int dh, int dw) {
  const int b = get_global_id(0), y = get_global_id(1), plane = get_global_id(2);
  if (y >= oh || b * POOL_V >= ow) return;
  const int x0 = pool_block_start(b, ow);
  const long column = (long)oh * ow;
  __global DTYPE *out = POOL_DST(dst) + (long)plane * kh * kw * column + y * ow + x0;
  __global const DTYPE *image = POOL_SRC(src) + (long)plane * ih * iw;
  for (int i = 0; i < kh; ++i) {
    const int h = y * sh - ph + i * dh;
    __global const DTYPE *in = h >= 0 && h < ih ? image + h * iw : 0;
    for (int j = 0; j < kw; ++j, out += column) {
      im2col_block(in, x0 * sw - pw + j * dw, iw, ow, sw, out);
    }
  }
}

__kernel void im2col_items(DECL_TENSOR1D(src), DECL_TENSOR1D(dst), int ih, int iw, int oh, int ow,
                           int planes, int kh, int kw, int sh, int sw, int ph, int pw, int dh,
                           int dw) {
  const int l = get_global_id(0);
  const int column = oh * ow;
  if (l >= column) return;
  const int y = l / ow, x = l - y * ow;
  const int h0 = y * sh - ph, w0 = x * sw - pw;
  for (int plane = get_global_id(1); plane < planes; plane += get_global_size(1)) {
    __global const DTYPE *image = POOL_SRC(src) + (long)plane * ih * iw;
    __global DTYPE *out = POOL_DST(dst) + (long)plane * kh * kw * column + l;
    for (int i = 0; i < kh; ++i) {
      const int h = h0 + i * dh;
      const bool row = h >= 0 && h < ih;
      for (int j = 0; j < kw; ++j, out += column) {
        const int w = w0 + j * dw;
        POOL_STORE(row && w >= 0 && w < iw ? POOL_LOAD(image, h * iw + w) : 0.0f, out, 0);
      }
    }
  }
}

/* im2col_rows (CPU devices): one work item per column row
 * r = (plane * kh + i) * kw + j, writing its oh * ow contiguous positions
 * output row by output row: zeros where the source falls in the padding,
 * vectors of POOL_W sources (width stride 1 or 2, the last vector ending at
 * the inner range's end) between. */
__kernel void im2col_rows(DECL_TENSOR1D(src), DECL_TENSOR1D(dst), int ih, int iw, int oh, int ow,
                          int planes, int kh, int kw, int sh, int sw, int ph, int pw, int dh,
                          int dw) {
  const int r = get_global_id(1);
  if (r >= planes * kh * kw) return;
  const int plane = r / (kh * kw), i = r / kw % kh, j = r % kw;
  __global DTYPE *out = POOL_DST(dst) + (long)r * oh * ow;
  __global const DTYPE *image = POOL_SRC(src) + (long)plane * ih * iw;
  const int p = pw - j * dw; /* position x reads image row x * sw - p */
  int lo, hi;
  pool_inner_range(iw, ow, 1, sw, p, 1, &lo, &hi);
  const bool wide = hi - lo >= POOL_W && sw <= 2 && (sw == 1 || iw >= 32);
  for (int y = 0; y < oh; ++y, out += ow) {
    const int h = y * sh - ph + i * dh;
    if (h < 0 || h >= ih) {
      pool_zero(out, ow);
      continue;
    }
    __global const DTYPE *in = image + h * iw;
    pool_zero(out, lo);
    pool_zero(out + hi, ow - hi);
    int x = lo;
    if (wide) {
      for (; x < hi; x += POOL_W) {
        const int at = min(x, hi - POOL_W), w = at * sw - p;
        VSTORE(DTYPE, 16, pool_load_wide(in + w, sw, w, iw), out + at);
      }
    }
    for (; x < hi; ++x) POOL_STORE(POOL_LOAD(in, x * sw - p), out, x);
  }
}
