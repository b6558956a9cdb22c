/*
 * Max pooling, 2-D: the window maximum and, when write_index is set, its flat
 * index in the plane. One work item per block of POOL_V outputs of a row (see
 * "pool.h"); blocks whose windows lie inside the input take vector loads,
 * the others (padding, narrow rows) one scalar window per output.
 * maxpool2d_items (GPUs) takes one work item per output position of a plane
 * (see "pool.h"), so neighbouring items read neighbouring windows.
 */
// #include "common.h"
// #include "pool.h"

/* The block at x0 of output row y, every window inside the input's width:
 * the maxima and, with `at`, their indices. */
inline pool_vec maxpool2d_block(__global const DTYPE *in, int ih, int iw, int y, int x0, int kh,
                                int kw, int sh, int sw, int ph, int pw, int dh, int dw, int8 *at) {
  const int hs = y * sh - ph, ws = x0 * sw - pw;
  int h0 = hs;
  while (h0 < 0) h0 += dh;
  pool_vec m = (pool_vec)(-INFINITY);
  if (at) {
    const int8 lanes = POOL_LANES * sw;
    int8 index = (int8)(h0 * iw + ws) + lanes;
    for (int i = 0; i < kh; ++i) {
      const int h = hs + i * dh;
      if (h < 0 || h >= ih) continue;
      for (int j = 0; j < kw; ++j) {
        const int x = ws + j * dw;
        const pool_vec v = pool_load_lanes(in + h * iw + x, sw, x, iw);
        const int8 take = isgreater(v, m) | isnan(v);
        m = select(m, v, take);
        index = select(index, (int8)(h * iw + x) + lanes, take);
      }
    }
    *at = index;
    return m;
  }
  /* Values only: NaN is tracked apart, the maximum is a plain compare. */
  int8 nan = (int8)(0);
  for (int i = 0; i < kh; ++i) {
    const int h = hs + i * dh;
    if (h < 0 || h >= ih) continue;
    for (int j = 0; j < kw; ++j) {
      const int x = ws + j * dw;
      const pool_vec v = pool_load_lanes(in + h * iw + x, sw, x, iw);
      m = v > m ? v : m;
      nan |= isnan(v);
    }
  }
  return select(m, (pool_vec)(NAN), nan);
}

__kernel void maxpool2d(DECL_TENSOR1D(src), DECL_TENSOR1D(dst), DECL_TENSOR1D(idx),
                        int write_index, int ih, int iw, int oh, int ow, int planes, int kh, int kw,
                        int sh, int sw, int ph, int pw, int dh, int dw) {
  const int b = get_global_id(0), y = get_global_id(1), plane = get_global_id(2);
  if (y >= oh || b * POOL_V >= ow) return;
  const long row = (long)plane * oh + y;
  __global const DTYPE *in = POOL_SRC(src) + (long)plane * ih * iw;
  const long out = row * ow;
  __global IDX_DTYPE *indices = (__global IDX_DTYPE *)TENSOR_BASE(idx);
  const int x0 = pool_block_start(b, ow);
  const int ws = x0 * sw - pw;
  if (ow >= POOL_V && ws >= 0 && ws + (POOL_V - 1) * sw + (kw - 1) * dw < iw) {
    int8 at;
    const pool_vec v =
        maxpool2d_block(in, ih, iw, y, x0, kh, kw, sh, sw, ph, pw, dh, dw, write_index ? &at : 0);
    VSTORE(DTYPE, 8, v, POOL_DST(dst) + out + x0);
    if (write_index) VSTORE(IDX_DTYPE, 8, CONVERT_WRAP(IDX_DTYPE, 8, at), indices + out + x0);
    return;
  }
  const int4 isz = (int4)(1, ih, iw, 0), k = (int4)(1, kh, kw, 0), s = (int4)(1, sh, sw, 0);
  const int4 p = (int4)(0, ph, pw, 0), dl = (int4)(1, dh, dw, 0);
  for (int x = x0; x < min(x0 + POOL_V, ow); ++x) {
    int index;
    const float v = pool_max_window(in, isz, (int4)(0, y, x, 0), k, s, p, dl, &index);
    POOL_STORE(v, POOL_DST(dst), out + x);
    if (write_index) indices[out + x] = index;
  }
}

__kernel void maxpool2d_items(DECL_TENSOR1D(src), DECL_TENSOR1D(dst), DECL_TENSOR1D(idx),
                              int write_index, int ih, int iw, int oh, int ow, int planes, int kh,
                              int kw, int sh, int sw, int ph, int pw, int dh, int dw) {
  const int l = get_global_id(0);
  if (l >= oh * ow) return;
  const int y = l / ow, x = l - y * ow;
  const int4 isz = (int4)(1, ih, iw, 0), k = (int4)(1, kh, kw, 0), s = (int4)(1, sh, sw, 0);
  const int4 p = (int4)(0, ph, pw, 0), dl = (int4)(1, dh, dw, 0);
  __global IDX_DTYPE *indices = (__global IDX_DTYPE *)TENSOR_BASE(idx);
  for (int plane = get_global_id(1); plane < planes; plane += get_global_size(1)) {
    const long out = (long)plane * oh * ow + l;
    int index;
    const float v = pool_max_window(POOL_SRC(src) + (long)plane * ih * iw, isz,
                                    (int4)(0, y, x, 0), k, s, p, dl, &index);
    POOL_STORE(v, POOL_DST(dst), out);
    if (write_index) indices[out] = index;
  }
}

/* The maxima of POOL_W outputs whose windows start at column ws of rows hs,
 * hs + dh, ... and span kw (2 or 3) columns at width stride 2: the rows'
 * element-wise maximum first, then the kw column taps. NaN shows in the sum
 * of all sources: false when that is NaN (a NaN, or inf - inf), and the
 * caller takes the exact path. */
inline bool maxpool2d_wide_s2(__global const DTYPE *in, int ih, int iw, int hs, int kh, int dh,
                              int ws, int kw, pool_wide *out) {
  pool_wide a = (pool_wide)(-INFINITY), b = a, sa = (pool_wide)(0.0f), sb = sa;
  float c = -INFINITY, sc = 0.0f;
  for (int i = 0; i < kh; ++i) {
    const int h = hs + i * dh;
    if (h < 0 || h >= ih) continue;
    __global const DTYPE *row = in + h * iw + ws;
    const pool_wide va = VLOAD(DTYPE, 16, row), vb = VLOAD(DTYPE, 16, row + 16);
    a = va > a ? va : a;
    b = vb > b ? vb : b;
    sa += va;
    sb += vb;
    if (kw == 3) {
      const float vc = POOL_LOAD(row, 32);
      c = vc > c ? vc : c;
      sc += vc;
    }
  }
  const pool_wide even = (pool_wide)(a.even, b.even), odd = (pool_wide)(a.odd, b.odd);
  pool_wide m = odd > even ? odd : even;
  if (kw == 3) {
    const pool_wide next = (pool_wide)(even.s1234, even.s5678, even.s9abc, even.sdef, c);
    m = next > m ? next : m;
  }
  *out = m;
  const pool_wide s = sa + sb;
  const float8 s8 = s.lo + s.hi;
  const float4 s4 = s8.lo + s8.hi;
  return !isnan(s4.x + s4.y + s4.z + s4.w + sc);
}

/* The maxima of POOL_W outputs whose windows start at column ws of rows hs,
 * hs + dh, ... (width stride 1 or 2), NaN winning. */
inline pool_wide maxpool2d_wide(__global const DTYPE *in, int ih, int iw, int hs, int kh, int dh,
                                int ws, int kw, int sw, int dw) {
  pool_wide m = (pool_wide)(-INFINITY);
  int16 nan = (int16)(0);
  for (int i = 0; i < kh; ++i) {
    const int h = hs + i * dh;
    if (h < 0 || h >= ih) continue;
    for (int j = 0; j < kw; ++j) {
      const pool_wide v = pool_load_wide(in + h * iw + ws + j * dw, sw, ws + j * dw, iw);
      m = v > m ? v : m;
      nan |= isnan(v);
    }
  }
  return select(m, (pool_wide)(NAN), nan);
}

/* Output row y of a plane: outputs [lo, hi) in vectors of POOL_W (fast: the
 * stride-2 form first), the others one at a time. */
inline void maxpool2d_row(__global const DTYPE *in, __global DTYPE *out, int ih, int iw, int y,
                          int ow, int kh, int kw, int sh, int sw, int ph, int pw, int dh, int dw,
                          int lo, int hi, bool fast) {
  const int hs = y * sh - ph;
  for (int x0 = lo; x0 < hi; x0 += POOL_W) {
    const int x = min(x0, hi - POOL_W), ws = x * sw - pw;
    pool_wide m;
    if (!fast || !maxpool2d_wide_s2(in, ih, iw, hs, kh, dh, ws, kw, &m))
      m = maxpool2d_wide(in, ih, iw, hs, kh, dh, ws, kw, sw, dw);
    VSTORE(DTYPE, 16, m, out + x);
  }
  const int4 isz = (int4)(1, ih, iw, 0), k = (int4)(1, kh, kw, 0), s = (int4)(1, sh, sw, 0);
  const int4 p = (int4)(0, ph, pw, 0), dl = (int4)(1, dh, dw, 0);
  for (int x = 0; x < ow; ++x) {
    if (x == lo) x = hi;
    if (x >= ow) break;
    int index;
    POOL_STORE(pool_max_window(in, isz, (int4)(0, y, x, 0), k, s, p, dl, &index), out, x);
  }
}

/* maxpool2d_rows (CPU devices, values only, width stride 1 or 2): work items
 * over (row sets, planes); item r of a plane takes its output rows r,
 * r + get_global_size(0), ... (see "pool.h"). */
__kernel void maxpool2d_rows(DECL_TENSOR1D(src), DECL_TENSOR1D(dst), DECL_TENSOR1D(idx),
                             int write_index, int ih, int iw, int oh, int ow, int planes, int kh,
                             int kw, int sh, int sw, int ph, int pw, int dh, int dw) {
  const int plane = get_global_id(1);
  if (plane >= planes) return;
  __global const DTYPE *in = POOL_SRC(src) + (long)plane * ih * iw;
  int lo, hi;
  pool_inner_range(iw, ow, kw, sw, pw, dw, &lo, &hi);
  if (hi - lo < POOL_W || (sw == 2 && iw < 32)) lo = hi = ow;
  const bool fast = sw == 2 && dw == 1 && (kw == 2 || kw == 3);
  for (int y = get_global_id(0); y < oh; y += get_global_size(0)) {
    maxpool2d_row(in, POOL_DST(dst) + ((long)plane * oh + y) * ow, ih, iw, y, ow, kh, kw, sh, sw,
                  ph, pw, dh, dw, lo, hi, fast);
  }
}
