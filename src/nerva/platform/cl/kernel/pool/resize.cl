/*
 * Resampling (torch interpolate) of (depth, height, width) planes; 1-D and
 * 2-D inputs pass 1 for the unused leading sizes. `mode` is the
 * InterpolateMode code: 0 nearest, 1 nearest-exact, 2/3/5 linear, bilinear,
 * trilinear (one separable product), 4 bicubic (2-D, A = -0.75, borders
 * clamped), 6 area (adaptive average). `scale` holds, per dimension, the
 * output-to-input coordinate scale that torch computes (in / out,
 * 1 / scale_factor, or (in - 1) / (out - 1) with align_corners).
 * One work item per output element; helpers in "pool.h".
 */
// #include "common.h"
// #include "pool.h"

/* torch's area_pixel_compute_source_index. */
inline float resize_src(float scale, int o, int align_corners, int cubic) {
  if (align_corners) return scale * (float)o;
  const float src = scale * ((float)o + 0.5f) - 0.5f;
  return (!cubic && src < 0.0f) ? 0.0f : src;
}

/* Linear taps along one dimension: indices i0, i1 and weights l0, l1. */
inline int resize_taps(float scale, int o, int in, int align_corners, int2 *index, float2 *w) {
  const float src = resize_src(scale, o, align_corners, 0);
  const int i0 = min((int)src, in - 1);
  const float l1 = clamp(src - (float)i0, 0.0f, 1.0f);
  *index = (int2)(i0, i0 + (i0 < in - 1 ? 1 : 0));
  *w = (float2)(1.0f - l1, l1);
  return l1 != 0.0f ? 2 : 1;
}

inline float resize_linear(__global const DTYPE *plane, int4 isz, int4 o, float4 scale,
                           int align_corners) {
  int2 d, h, w;
  float2 ld, lh, lw;
  const int nd = resize_taps(scale.s0, o.s0, isz.s0, align_corners, &d, &ld);
  const int nh = resize_taps(scale.s1, o.s1, isz.s1, align_corners, &h, &lh);
  const int nw = resize_taps(scale.s2, o.s2, isz.s2, align_corners, &w, &lw);
  float v = 0.0f;
  for (int a = 0; a < nd; ++a) {
    float vh = 0.0f;
    for (int b = 0; b < nh; ++b) {
      const int row = ((a ? d.s1 : d.s0) * isz.s1 + (b ? h.s1 : h.s0)) * isz.s2;
      const float vw = lw.s0 * POOL_LOAD(plane, row + w.s0) +
                       (nw > 1 ? lw.s1 * POOL_LOAD(plane, row + w.s1) : 0.0f);
      vh += (b ? lh.s1 : lh.s0) * vw;
    }
    v += (a ? ld.s1 : ld.s0) * vh;
  }
  return v;
}

/* torch's cubic convolution weights for the four taps around t in [0, 1). */
inline float4 cubic_weights(float t) {
  const float A = -0.75f;
  const float x0 = t + 1.0f, x1 = t, x2 = 1.0f - t, x3 = 2.0f - t;
  return (float4)(((A * x0 - 5.0f * A) * x0 + 8.0f * A) * x0 - 4.0f * A,
                  ((A + 2.0f) * x1 - (A + 3.0f)) * x1 * x1 + 1.0f,
                  ((A + 2.0f) * x2 - (A + 3.0f)) * x2 * x2 + 1.0f,
                  ((A * x3 - 5.0f * A) * x3 + 8.0f * A) * x3 - 4.0f * A);
}

inline float resize_bicubic(__global const DTYPE *plane, int4 isz, int4 o, float4 scale,
                            int align_corners) {
  const float sy = resize_src(scale.s1, o.s1, align_corners, 1);
  const float sx = resize_src(scale.s2, o.s2, align_corners, 1);
  const float fy = floor(sy), fx = floor(sx);
  const int iy = (int)fy, ix = (int)fx;
  const float4 wy = cubic_weights(sy - fy), wx = cubic_weights(sx - fx);
  const int4 xs = clamp((int4)(ix - 1, ix, ix + 1, ix + 2), 0, isz.s2 - 1);
  float rows[4];
  for (int r = 0; r < 4; ++r) {
    const int y = clamp(iy - 1 + r, 0, isz.s1 - 1);
    __global const DTYPE *line = plane + y * isz.s2;
    rows[r] = POOL_LOAD(line, xs.s0) * wx.s0 + POOL_LOAD(line, xs.s1) * wx.s1 +
              POOL_LOAD(line, xs.s2) * wx.s2 + POOL_LOAD(line, xs.s3) * wx.s3;
  }
  return rows[0] * wy.s0 + rows[1] * wy.s1 + rows[2] * wy.s2 + rows[3] * wy.s3;
}

inline float resize_nearest(__global const DTYPE *plane, int4 isz, int4 o, float4 scale,
                            float shift) {
  const int d = min((int)floor(((float)o.s0 + shift) * scale.s0), isz.s0 - 1);
  const int h = min((int)floor(((float)o.s1 + shift) * scale.s1), isz.s1 - 1);
  const int w = min((int)floor(((float)o.s2 + shift) * scale.s2), isz.s2 - 1);
  return POOL_LOAD(plane, (d * isz.s1 + h) * isz.s2 + w);
}

__kernel void resize(DECL_TENSOR1D(src), DECL_TENSOR1D(dst), int4 isz, int4 osz, float4 scale,
                     int mode, int align_corners) {
  int4 o;
  const long plane_index = pool_item(osz, &o);
  if (plane_index < 0) return;
  const long g = pool_index(plane_index, o, osz);
  __global const DTYPE *plane = POOL_SRC(src) + plane_index * pool_volume(isz);
  float v;
  if (mode == 0 || mode == 1) {
    v = resize_nearest(plane, isz, o, scale, mode == 1 ? 0.5f : 0.0f);
  } else if (mode == 4) {
    v = resize_bicubic(plane, isz, o, scale, align_corners);
  } else if (mode == 6) {
    v = adaptive_avg(plane, isz, osz, o);
  } else {
    v = resize_linear(plane, isz, o, scale, align_corners);
  }
  POOL_STORE(v, POOL_DST(dst), g);
}

/* Nearest and (bi)linear resampling of 2-D planes (depth 1) in row blocks (see
 * "pool.h"): the row taps are shared by the block, the column taps are
 * vectors. `mode` as for `resize` (0, 1, 2 or 3); sh and sw the height and
 * width scales. Every block gathers its sources, so no border case. */
__kernel void resize_rows(DECL_TENSOR1D(src), DECL_TENSOR1D(dst), int ih, int iw, int oh, int ow,
                          int planes, float sh, float sw, int mode, int align_corners) {
  const int b = get_global_id(0), y = get_global_id(1), plane = get_global_id(2);
  if (y >= oh || b * POOL_V >= ow) return;
  const long row = (long)plane * oh + y;
  __global const DTYPE *in = POOL_SRC(src) + (long)plane * ih * iw;
  __global DTYPE *out = POOL_DST(dst) + row * ow;
  const int x0 = pool_block_start(b, ow);
  const float8 x = convert_float8((int8)(x0) + POOL_LANES);
  pool_vec v;
  if (mode <= 1) {
    const float shift = mode == 1 ? 0.5f : 0.0f;
    const int h = min((int)floor(((float)y + shift) * sh), ih - 1);
    const int8 w = min(convert_int8(floor((x + shift) * sw)), iw - 1);
    v = pool_gather(in + h * iw, w);
  } else {
    int2 h;
    float2 lh;
    resize_taps(sh, y, ih, align_corners, &h, &lh);
    __global const DTYPE *r0 = in + h.s0 * iw, *r1 = in + h.s1 * iw;
    const int k0 = x0 / 2;
    if (sw == 0.5f && !align_corners && ow == 2 * iw && k0 >= 1 && k0 + POOL_V <= iw + 1) {
      /* Doubling, inside the row: outputs 2k and 2k + 1 blend sources k - 1,
       * k and k, k + 1 with weights 1/4 and 3/4, as the general taps give. */
      const float8 l0 = (float8)(0.25f, 0.75f, 0.25f, 0.75f, 0.25f, 0.75f, 0.25f, 0.75f);
      const float8 l1 = 1.0f - l0;
      const pool_vec a = VLOAD(DTYPE, 8, r0 + k0 - 1), c = VLOAD(DTYPE, 8, r1 + k0 - 1);
      v = lh.s0 * (l0 * a.s01122334 + l1 * a.s12233445) +
          lh.s1 * (l0 * c.s01122334 + l1 * c.s12233445);
    } else {
      const float8 src = align_corners ? sw * x : max(sw * (x + 0.5f) - 0.5f, 0.0f);
      const int8 w0 = min(convert_int8(src), iw - 1);
      const int8 w1 = w0 + select((int8)(0), (int8)(1), w0 < iw - 1);
      const float8 l1 = clamp(src - convert_float8(w0), 0.0f, 1.0f), l0 = 1.0f - l1;
      v = lh.s0 * (l0 * pool_gather(r0, w0) + l1 * pool_gather(r0, w1)) +
          lh.s1 * (l0 * pool_gather(r1, w0) + l1 * pool_gather(r1, w1));
    }
  }
  if (ow >= POOL_V) {
    VSTORE(DTYPE, 8, v, out + x0);
    return;
  }
  float lanes[POOL_V];
  vstore8(v, 0, lanes);
  for (int i = 0; i < ow; ++i) POOL_STORE(lanes[i], out, i);
}

/* The (bi)linear value of output x of a row blending source rows r0 and r1
 * with weights lh (scalar, for the row ends of resize_wide_rows). */
inline float resize_row_point(__global const DTYPE *r0, __global const DTYPE *r1, float2 lh,
                              float sw, int x, int iw) {
  int2 w;
  float2 lw;
  resize_taps(sw, x, iw, 0, &w, &lw);
  return lh.s0 * (lw.s0 * POOL_LOAD(r0, w.s0) + lw.s1 * POOL_LOAD(r0, w.s1)) +
         lh.s1 * (lw.s0 * POOL_LOAD(r1, w.s0) + lw.s1 * POOL_LOAD(r1, w.s1));
}

/* resize_wide_rows (CPU devices): (bi)linear doubling of the width without
 * align_corners (iw >= 18), one work item per output row over (oh, planes):
 * the two source rows blended by the row weights first, then outputs 2k and
 * 2k + 1 blend sources k - 1, k and k, k + 1 with weights 1/4 and 3/4, 32
 * outputs per vector step (the last step ending at source iw - 2); the two
 * outputs at either end one at a time. Arguments as resize_rows. */
__kernel void resize_wide_rows(DECL_TENSOR1D(src), DECL_TENSOR1D(dst), int ih, int iw, int oh,
                               int ow, int planes, float sh, float sw, int mode,
                               int align_corners) {
  const int y = get_global_id(0), plane = get_global_id(1);
  if (y >= oh || plane >= planes) return;
  int2 h;
  float2 lh;
  resize_taps(sh, y, ih, align_corners, &h, &lh);
  __global const DTYPE *r0 = POOL_SRC(src) + ((long)plane * ih + h.s0) * iw;
  __global const DTYPE *r1 = POOL_SRC(src) + ((long)plane * ih + h.s1) * iw;
  __global DTYPE *out = POOL_DST(dst) + ((long)plane * oh + y) * ow;
  for (int k = 1; k < iw - 1; k += POOL_W) {
    const int k0 = min(k, iw - 1 - POOL_W);
    const pool_wide a = lh.s0 * VLOAD(DTYPE, 16, r0 + k0 - 1) + lh.s1 * VLOAD(DTYPE, 16, r1 + k0 - 1);
    const pool_wide b = lh.s0 * VLOAD(DTYPE, 16, r0 + k0) + lh.s1 * VLOAD(DTYPE, 16, r1 + k0);
    const pool_wide c = lh.s0 * VLOAD(DTYPE, 16, r0 + k0 + 1) + lh.s1 * VLOAD(DTYPE, 16, r1 + k0 + 1);
    const pool_wide e = 0.25f * a + 0.75f * b, o = 0.75f * b + 0.25f * c;
    VSTORE(DTYPE, 16,
           (pool_wide)(e.s0, o.s0, e.s1, o.s1, e.s2, o.s2, e.s3, o.s3, e.s4, o.s4, e.s5, o.s5,
                       e.s6, o.s6, e.s7, o.s7),
           out + 2 * k0);
    VSTORE(DTYPE, 16,
           (pool_wide)(e.s8, o.s8, e.s9, o.s9, e.sa, o.sa, e.sb, o.sb, e.sc, o.sc, e.sd, o.sd,
                       e.se, o.se, e.sf, o.sf),
           out + 2 * k0 + POOL_W);
  }
  const int ends[4] = {0, 1, ow - 2, ow - 1};
  for (int i = 0; i < 4; ++i) POOL_STORE(resize_row_point(r0, r1, lh, sw, ends[i], iw), out, ends[i]);
}
