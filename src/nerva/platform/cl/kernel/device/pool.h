/*
 * Shared device helpers of the pooling, im2col/col2im and resampling programs.
 * Every program sees planes of (depth, height, width) volumes, flat and
 * contiguous. The general programs take their geometry as int4 arguments
 * (.s0 depth, .s1 height, .s2 width): input size, output size, kernel,
 * stride, padding, dilation. A 2-D operator passes depth 1, kernel 1, stride
 * 1, padding 0, dilation 1. The sizes carry the plane count in .s3. Work
 * items span (width, height, depth * planes); items past the end return at
 * once. The fast 2-D programs (row blocks, below) take scalar ints instead.
 * Definitions: DTYPE (float or half, stored as 16-bit and converted with
 * vload_half/vstore_half), IDX_DTYPE (long or int).
 */
// #include "common.h"
#ifndef NERVA_POOL_H
#define NERVA_POOL_H

#define POOL_LOAD(p, i) VLOAD(DTYPE, 1, (p) + (i))
#define POOL_STORE(v, p, i) VSTORE(DTYPE, 1, (v), (p) + (i))
#define POOL_SRC(name) ((__global const DTYPE *)TENSOR_BASE(name))
#define POOL_DST(name) ((__global DTYPE *)TENSOR_BASE(name))

/* Volume of an int4 size. */
inline long pool_volume(int4 n) { return (long)n.s0 * n.s1 * n.s2; }

/* This work item's position (d, h, w) in volumes of size n over a
 * (width, height, depth * planes) range, and its plane; -1 past the end. */
inline long pool_item(int4 n, int4 *pos) {
  const int z = (int)get_global_id(2);
  const int h = (int)get_global_id(1), w = (int)get_global_id(0);
  *pos = (int4)(z % n.s0, h, w, 0);
  const long plane = z / n.s0;
  return (w >= n.s2 || h >= n.s1 || plane >= n.s3) ? -1 : plane;
}

/* Flat position of (plane, pos) in volumes of size n. */
inline long pool_index(long plane, int4 pos, int4 n) {
  return ((plane * n.s0 + pos.s0) * n.s1 + pos.s1) * n.s2 + pos.s2;
}

/* Flat position within a plane. */
inline int pool_flat(int4 pos, int4 n) { return (pos.s0 * n.s1 + pos.s1) * n.s2 + pos.s2; }

/* Adaptive window of output o along a dimension of in -> out:
 * [floor(o * in / out), ceil((o + 1) * in / out)). */
inline int adaptive_start(int o, int in, int out) { return (int)(((long)o * in) / out); }
inline int adaptive_end(int o, int in, int out) {
  return (int)((((long)o + 1) * in + out - 1) / out);
}

/* ---- row blocks ----
 * The fast 2-D programs take one work item per POOL_V consecutive outputs of
 * an output row over (blocks, output height, planes), geometry as scalar int
 * arguments. The last block of a row ends at the row's end,
 * overlapping the one before it, so a block is full whenever the row holds
 * at least POOL_V outputs; narrower rows take the scalar path. */
#define POOL_V 8
typedef float8 pool_vec;
#define POOL_LANES ((int8)(0, 1, 2, 3, 4, 5, 6, 7))

/* The GPU programs (names ending in _items) take one work item per output
 * position of a plane instead, over (positions, planes): consecutive items
 * write consecutive outputs, and each item walks the planes from
 * get_global_id(1) in steps of get_global_size(1). */

/* First output of block b of a row of `width` outputs. */
inline int pool_block_start(int b, int width) { return max(min(b * POOL_V, width - POOL_V), 0); }

/* POOL_V elements p[0], p[s], ..., p[7 * s] of a row of `width` elements,
 * p being at position x of the row (all of them inside it). */
inline pool_vec pool_load_lanes(__global const DTYPE *p, int s, int x, int width) {
  if (s == 1) return VLOAD(DTYPE, 8, p);
  if (s == 2 && x + 16 <= width) return VLOAD(DTYPE, 16, p).even;
  if (s == 2 && x >= 1) return VLOAD(DTYPE, 16, p - 1).odd;
  return (pool_vec)(POOL_LOAD(p, 0), POOL_LOAD(p, s), POOL_LOAD(p, 2 * s), POOL_LOAD(p, 3 * s),
                    POOL_LOAD(p, 4 * s), POOL_LOAD(p, 5 * s), POOL_LOAD(p, 6 * s),
                    POOL_LOAD(p, 7 * s));
}

/* The elements p[i.s0], ..., p[i.s7]. */
inline pool_vec pool_gather(__global const DTYPE *p, int8 i) {
  return (pool_vec)(POOL_LOAD(p, i.s0), POOL_LOAD(p, i.s1), POOL_LOAD(p, i.s2), POOL_LOAD(p, i.s3),
                    POOL_LOAD(p, i.s4), POOL_LOAD(p, i.s5), POOL_LOAD(p, i.s6), POOL_LOAD(p, i.s7));
}

/* ---- whole rows (CPU devices) ----
 * The CPU programs maxpool2d_rows, im2col_rows and resize_wide_rows give a
 * work item whole output rows (one, or all rows of a plane or column row) and
 * walk each row in vectors of POOL_W outputs, the last one ending at the
 * row's end (overlapping the one before it); outputs whose sources fall
 * outside the row go one at a time. */
#define POOL_W 16
typedef float16 pool_wide;

/* POOL_W elements p[0], p[s], ..., p[15 * s] for s = 1 or 2, p being at
 * position x of a row of `width` elements and all of them inside it (for
 * s = 2, width >= 32). */
inline pool_wide pool_load_wide(__global const DTYPE *p, int s, int x, int width) {
  if (s == 1) return VLOAD(DTYPE, 16, p);
  if (x + 32 <= width) return (pool_wide)(VLOAD(DTYPE, 16, p).even, VLOAD(DTYPE, 16, p + 16).even);
  return (pool_wide)(VLOAD(DTYPE, 16, p - 1).odd, VLOAD(DTYPE, 16, p + 15).odd);
}

/* The outputs [*lo, *hi) of a row of `out` whose taps x * s - p + j * d
 * (0 <= j < k) all lie in [0, in); p may be negative. */
inline void pool_inner_range(int in, int out, int k, int s, int p, int d, int *lo, int *hi) {
  const int last = in - 1 + p - (k - 1) * d;
  *lo = p > 0 ? min((p + s - 1) / s, out) : 0;
  *hi = last < 0 ? 0 : min(last / s + 1, out);
  if (*hi < *lo) *hi = *lo;
}

/* Zeros into p[0], ..., p[n - 1], written as bits (a constant vstore_half16
 * may become an aligned store). */
inline void pool_zero(__global DTYPE *p, int n) {
  int x = 0;
  if (sizeof(DTYPE) == 2) {
    for (; x + POOL_W <= n; x += POOL_W) vstore16((ushort16)(0), 0, (__global ushort *)p + x);
  } else {
    for (; x + POOL_W <= n; x += POOL_W) vstore16((uint16)(0), 0, (__global uint *)p + x);
  }
  for (; x < n; ++x) POOL_STORE(0.0f, p, x);
}

/* ---- max pooling ----
 * The maximum of the window of output position o (NaN wins, the first
 * maximum is kept) and its flat index within the plane; the index starts at
 * the window's first element inside the input. */
inline float pool_max_window(__global const DTYPE *plane, int4 isz, int4 o, int4 k, int4 s,
                             int4 p, int4 dl, int *index) {
  int4 start = o * s - p;
  int4 end = min(start + (k - 1) * dl + 1, isz);
  while (start.s0 < 0) start.s0 += dl.s0;
  while (start.s1 < 0) start.s1 += dl.s1;
  while (start.s2 < 0) start.s2 += dl.s2;
  float best = -INFINITY;
  int best_index = pool_flat(start, isz);
  for (int d = start.s0; d < end.s0; d += dl.s0) {
    for (int h = start.s1; h < end.s1; h += dl.s1) {
      const int row = (d * isz.s1 + h) * isz.s2;
      for (int w = start.s2; w < end.s2; w += dl.s2) {
        const float v = POOL_LOAD(plane, row + w);
        if (v > best || isnan(v)) {
          best = v;
          best_index = row + w;
        }
      }
    }
  }
  *index = best_index;
  return best;
}

/* ---- average pooling ----
 * torch's window: [o * s - p, min(o * s - p + k, in + p)) counts toward the
 * divisor when padding is included, clipped to the input for the sum. */
inline int avg_window(int o, int in, int k, int s, int p, int *start, int *end) {
  const int a = o * s - p;
  const int b = min(a + k, in + p);
  *start = max(a, 0);
  *end = min(b, in);
  return b - a;
}

/* The divisor of the average window of o (0 for an empty window). */
inline float avg_divisor(int4 o, int4 isz, int4 k, int4 s, int4 p, int include_pad,
                         int divisor_override, int4 *start, int4 *end) {
  int sd, ed, sh, eh, sw, ew;
  const int padded = avg_window(o.s0, isz.s0, k.s0, s.s0, p.s0, &sd, &ed) *
                     avg_window(o.s1, isz.s1, k.s1, s.s1, p.s1, &sh, &eh) *
                     avg_window(o.s2, isz.s2, k.s2, s.s2, p.s2, &sw, &ew);
  *start = (int4)(sd, sh, sw, 0);
  *end = (int4)(ed, eh, ew, 0);
  if (sd >= ed || sh >= eh || sw >= ew) return 0.0f;
  if (divisor_override != 0) return (float)divisor_override;
  return include_pad ? (float)padded : (float)((ed - sd) * (eh - sh) * (ew - sw));
}

/* Sum of the box [start, end) of a plane. */
inline float pool_box_sum(__global const DTYPE *plane, int4 isz, int4 start, int4 end) {
  float sum = 0.0f;
  for (int d = start.s0; d < end.s0; ++d) {
    for (int h = start.s1; h < end.s1; ++h) {
      const int row = (d * isz.s1 + h) * isz.s2;
      for (int w = start.s2; w < end.s2; ++w) sum += POOL_LOAD(plane, row + w);
    }
  }
  return sum;
}

/* ---- gradients (each input element gathers the outputs whose window covers it) ----
 * Outputs o whose window o * s - p + j * dl (0 <= j < k) can reach input i:
 * [first, last], clipped to [0, out). */
inline int cover_first(int i, int k, int s, int p, int dl) {
  const int num = i + p - (k - 1) * dl;
  return num <= 0 ? 0 : (num + s - 1) / s;
}
inline int cover_last(int i, int s, int p, int out) { return min((i + p) / s, out - 1); }

/* Outputs of the adaptive windows covering input i: [floor(i * out / in),
 * ceil((i + 1) * out / in)). */
inline int adaptive_cover_first(int i, int in, int out) { return (int)(((long)i * out) / in); }
inline int adaptive_cover_end(int i, int in, int out) {
  return (int)((((long)i + 1) * out + in - 1) / in);
}

/* The average of the adaptive window of o. */
inline float adaptive_avg(__global const DTYPE *plane, int4 isz, int4 osz, int4 o) {
  const int4 start = (int4)(adaptive_start(o.s0, isz.s0, osz.s0),
                            adaptive_start(o.s1, isz.s1, osz.s1),
                            adaptive_start(o.s2, isz.s2, osz.s2), 0);
  const int4 end = (int4)(adaptive_end(o.s0, isz.s0, osz.s0), adaptive_end(o.s1, isz.s1, osz.s1),
                          adaptive_end(o.s2, isz.s2, osz.s2), 0);
  const int4 n = end - start;
  return pool_box_sum(plane, isz, start, end) / (float)(n.s0 * n.s1 * n.s2);
}

/* Gradient of an adaptive average pooling at input position i. */
inline float adaptive_avg_grad(__global const DTYPE *plane, int4 isz, int4 osz, int4 i) {
  float sum = 0.0f;
  const int d1 = adaptive_cover_end(i.s0, isz.s0, osz.s0);
  const int h1 = adaptive_cover_end(i.s1, isz.s1, osz.s1);
  const int w1 = adaptive_cover_end(i.s2, isz.s2, osz.s2);
  for (int od = adaptive_cover_first(i.s0, isz.s0, osz.s0); od < d1; ++od) {
    const int kd = adaptive_end(od, isz.s0, osz.s0) - adaptive_start(od, isz.s0, osz.s0);
    for (int oh = adaptive_cover_first(i.s1, isz.s1, osz.s1); oh < h1; ++oh) {
      const int kh = adaptive_end(oh, isz.s1, osz.s1) - adaptive_start(oh, isz.s1, osz.s1);
      for (int ow = adaptive_cover_first(i.s2, isz.s2, osz.s2); ow < w1; ++ow) {
        const int kw = adaptive_end(ow, isz.s2, osz.s2) - adaptive_start(ow, isz.s2, osz.s2);
        const float g = POOL_LOAD(plane, (od * osz.s1 + oh) * osz.s2 + ow);
        sum += g / (float)kd / (float)kh / (float)kw;
      }
    }
  }
  return sum;
}

/* Gradient of an average pooling at input position i. */
inline float avg_pool_grad(__global const DTYPE *plane, int4 isz, int4 osz, int4 i, int4 k,
                           int4 s, int4 p, int include_pad, int divisor_override) {
  const int4 one = (int4)(1);
  float sum = 0.0f;
  const int d1 = cover_last(i.s0, s.s0, p.s0, osz.s0);
  const int h1 = cover_last(i.s1, s.s1, p.s1, osz.s1);
  const int w1 = cover_last(i.s2, s.s2, p.s2, osz.s2);
  for (int od = cover_first(i.s0, k.s0, s.s0, p.s0, 1); od <= d1; ++od) {
    for (int oh = cover_first(i.s1, k.s1, s.s1, p.s1, 1); oh <= h1; ++oh) {
      for (int ow = cover_first(i.s2, k.s2, s.s2, p.s2, 1); ow <= w1; ++ow) {
        int4 start, end;
        const float div = avg_divisor((int4)(od, oh, ow, 0), isz, k, s, p, include_pad,
                                      divisor_override, &start, &end);
        sum += POOL_LOAD(plane, (od * osz.s1 + oh) * osz.s2 + ow) / div;
      }
    }
  }
  return sum;
}

/* Gradient of a max pooling at input position i from the saved indices: the
 * outputs whose window holds i and whose index names i. */
inline float max_pool_grad(__global const DTYPE *grad, __global const IDX_DTYPE *index, int4 isz,
                           int4 osz, int4 i, int4 k, int4 s, int4 p, int4 dl) {
  const int self = pool_flat(i, isz);
  float sum = 0.0f;
  const int d1 = cover_last(i.s0, s.s0, p.s0, osz.s0);
  const int h1 = cover_last(i.s1, s.s1, p.s1, osz.s1);
  const int w1 = cover_last(i.s2, s.s2, p.s2, osz.s2);
  for (int od = cover_first(i.s0, k.s0, s.s0, p.s0, dl.s0); od <= d1; ++od) {
    if ((i.s0 + p.s0 - od * s.s0) % dl.s0 != 0) continue;
    for (int oh = cover_first(i.s1, k.s1, s.s1, p.s1, dl.s1); oh <= h1; ++oh) {
      if ((i.s1 + p.s1 - oh * s.s1) % dl.s1 != 0) continue;
      for (int ow = cover_first(i.s2, k.s2, s.s2, p.s2, dl.s2); ow <= w1; ++ow) {
        if ((i.s2 + p.s2 - ow * s.s2) % dl.s2 != 0) continue;
        const int o = (od * osz.s1 + oh) * osz.s2 + ow;
        if (index[o] == self) sum += POOL_LOAD(grad, o);
      }
    }
  }
  return sum;
}

/* ---- nearest neighbour ----
 * torch's nearest source index of output o: min(floor(o * scale), in - 1),
 * scale being in / out or 1 / scale_factor (the host passes 1 when sizes are
 * equal and 0.5 when the output doubles the input, as torch does). */
inline int nearest_src(int o, float scale, int in) {
  return min((int)floor((float)o * scale), in - 1);
}
/* The first output whose nearest source is at least i. */
inline int nearest_cover_first(int i, float scale, int in, int out) {
  int o = clamp((int)ceil((float)i / scale), 0, out);
  while (o > 0 && nearest_src(o - 1, scale, in) >= i) --o;
  while (o < out && nearest_src(o, scale, in) < i) ++o;
  return o;
}

#endif /* NERVA_POOL_H */
