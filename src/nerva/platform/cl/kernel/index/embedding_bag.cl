/* EmbeddingBag: out[b][d] combines weight[indices[j]][d] over the bag's
 * positions j. Bag b spans [offsets[b], offsets[b + 1]) (the last one ending
 * at len unless include_last_offset), or [b * fixed, (b + 1) * fixed) when
 * `fixed` > 0 (2-D indices); bounds are clamped to [0, len]. Indices outside
 * [0, rows) and padding_idx are skipped; an empty bag gives 0.
 * mode: 0 sum (times per_sample_weights when has_psw), 1 mean, 2 max.
 * On GPUs, work item g takes columns [16 c, 16 c + 16) of bag b
 * (g = b * chunks + c): it reads the bag's indices once and a whole 16-wide
 * vector of each row. CPUs run EmbeddingBag_cpu below. */
#define EB_W 16
#define EB_VEC float16

/* The index range [*start, *end) of bag b: `fixed` indices per bag when
 * fixed > 0, else from the offsets (the last bag ends at len), clamped to
 * [0, len]. */
inline void eb_bag_range(ulong b, long fixed, __global const uchar *offsets, int off64, long noff,
                         long len, long *start, long *end) {
  long s, e;
  if (fixed > 0) {
    s = (long)b * fixed;
    e = s + fixed;
  } else {
    s = ix_load_index(offsets, b, off64);
    e = (long)b + 1 < noff ? ix_load_index(offsets, b + 1, off64) : len;
  }
  *start = clamp(s, 0L, len);
  *end = clamp(e, *start, len);
}

__kernel void EmbeddingBag(IX_PARAM(w), IX_PARAM(idx), int is64, IX_PARAM(off), int off64,
                           IX_PARAM(psw), int has_psw, IX_PARAM(out), ulong bags, ulong dim,
                           long rows, long len, long noff, long fixed, int last_offset, int mode,
                           long padding, ulong chunks) {
  const ulong g = get_global_id(0);
  if (g >= bags * chunks) return;
  const ulong b = g / chunks, first = (g - b * chunks) * EB_W;
  long start, end;
  eb_bag_range(b, fixed, off_ptr + off_off, off64, noff, len, &start, &end);
  __global const DTYPE *wt = IX_BASE(w, DTYPE) + first;
  __global DTYPE *dst = IX_BASE(out, DTYPE) + b * dim + first;
  const ulong width = min((ulong)EB_W, dim - first);
  int count = 0;
  if (width == EB_W) {
    /* Branch-free loop bodies per mode: the row load is the whole cost. */
    __global const uchar *ix = idx_ptr + idx_off;
    EB_VEC acc = 0.0f;
    if (mode == 2) {
      acc = -INFINITY;
      for (long j = start; j < end; ++j) {
        const long r = ix_fix(ix_load_index(ix, j, is64), rows, 0);
        if (r < 0 || r == padding) continue;
        const EB_VEC v = VLOAD(DTYPE, 16, wt + r * (long)dim);
        acc = select(acc, v, isnan(v) || v > acc);
        ++count;
      }
    } else if (has_psw) {
      for (long j = start; j < end; ++j) {
        const long r = ix_fix(ix_load_index(ix, j, is64), rows, 0);
        if (r < 0 || r == padding) continue;
        acc += VLOAD(DTYPE, 16, wt + r * (long)dim) * (float)VLOAD(DTYPE, 1, IX_BASE(psw, DTYPE) + j);
        ++count;
      }
    } else {
      for (long j = start; j < end; ++j) {
        const long r = ix_fix(ix_load_index(ix, j, is64), rows, 0);
        if (r < 0 || r == padding) continue;
        acc += VLOAD(DTYPE, 16, wt + r * (long)dim);
        ++count;
      }
    }
    if (count == 0) acc = 0.0f;
    if (mode == 1 && count > 0) acc /= (float)count;
    VSTORE(DTYPE, 16, acc, dst);
    return;
  }
  for (ulong d = 0; d < width; ++d) {
    float acc = mode == 2 ? -INFINITY : 0.0f;
    count = 0;
    for (long j = start; j < end; ++j) {
      const long r = ix_fix(ix_load_index(idx_ptr + idx_off, j, is64), rows, 0);
      if (r < 0 || r == padding) continue;
      float v = VLOAD(DTYPE, 1, wt + r * (long)dim + d);
      if (has_psw) v *= VLOAD(DTYPE, 1, IX_BASE(psw, DTYPE) + j);
      acc = mode == 2 ? ((isnan(v) || v > acc) ? v : acc) : acc + v;
      ++count;
    }
    if (count == 0) acc = 0.0f;
    if (mode == 1 && count > 0) acc /= (float)count;
    VSTORE(DTYPE, 1, acc, dst + d);
  }
}

/* The same for CPUs: work item b takes the whole of bag b. Columns go in
 * blocks of 64 (four float16 accumulators), then of 16, then one at a time;
 * while the first block runs, the row of position j + IX_AHEAD is
 * prefetched, so several random rows are in flight. */
typedef float16 eb_float16 __attribute__((aligned(4)));
typedef ushort16 eb_ushort16 __attribute__((aligned(2)));
#define EB_LOAD16_float(p) (*(__global const eb_float16 *)(p))
#define EB_LOAD16_half(p) vload_half16(0, p)
#define EB_STORE16_float(v, p) (*(__global eb_float16 *)(p) = (v))
/* Half goes through private memory: a constant stored straight with
 * vstore_half16 may become an aligned vector store. */
#define EB_STORE16_half(v, p)                                                  \
  do {                                                                         \
    ushort bits[16];                                                           \
    vstore_half16_rte(v, 0, (__private half *)bits);                           \
    *(__global eb_ushort16 *)(p) = vload16(0, bits);                           \
  } while (0)
#define EB_LOAD16(p) NERVA_CAT(EB_LOAD16_, DTYPE)(p)
#define EB_STORE16(v, p) NERVA_CAT(EB_STORE16_, DTYPE)(v, p)

/* Columns [first, first + 16 nv) of the bag over positions [start, end).
 * One loop per mode keeps the loop bodies short: the row loads are the whole
 * cost, and the fewer instructions per row, the more rows are in flight. */
#define EB_ROWS(BODY)                                                          \
  for (long j = start; j < end; ++j) {                                         \
    if (first == 0 && j + IX_AHEAD < len) {                                    \
      const long a = ix_fix(ix_load_index(ix, j + IX_AHEAD, is64), rows, 0);   \
      if (a >= 0) ix_prefetch((__global const uchar *)(wt + a * dim), row_bytes); \
    }                                                                          \
    const long r = ix_fix(ix_load_index(ix, j, is64), rows, 0);                \
    if (r < 0 || r == padding) continue;                                       \
    __global const DTYPE *p = wt + r * dim + first;                            \
    _Pragma("unroll") for (int q = 0; q < 4; ++q) if (q < nv) {                \
      const float16 v = EB_LOAD16(p + 16 * q);                                 \
      BODY;                                                                    \
    }                                                                          \
    ++count;                                                                   \
  }
__attribute__((always_inline)) inline void eb_block(
    __global const DTYPE *wt, __global const uchar *ix, int is64, __global const DTYPE *psw,
    int has_psw, __global DTYPE *dst, long start, long end, long len, long rows, long dim,
    long first, const int nv, int mode, long padding) {
  const ulong row_bytes = (ulong)dim * sizeof(DTYPE);
  float16 acc[4];
  _Pragma("unroll") for (int q = 0; q < 4; ++q) if (q < nv) acc[q] = mode == 2 ? -INFINITY : 0;
  int count = 0;
  if (mode == 2) {
    EB_ROWS(acc[q] = select(acc[q], v, isnan(v) || v > acc[q]))
  } else if (has_psw) {
    EB_ROWS(acc[q] += v * (float)VLOAD(DTYPE, 1, psw + j))
  } else {
    EB_ROWS(acc[q] += v)
  }
  _Pragma("unroll") for (int q = 0; q < 4; ++q) if (q < nv) {
    float16 v = count == 0 ? (float16)0.0f : acc[q];
    if (mode == 1 && count > 0) v /= (float)count;
    EB_STORE16(v, dst + first + 16 * q);
  }
}

__kernel void EmbeddingBag_cpu(IX_PARAM(w), IX_PARAM(idx), int is64, IX_PARAM(off), int off64,
                               IX_PARAM(psw), int has_psw, IX_PARAM(out), ulong bags, ulong dim,
                               long rows, long len, long noff, long fixed, int last_offset,
                               int mode, long padding) {
  const ulong b = get_global_id(0);
  if (b >= bags) return;
  long start, end;
  eb_bag_range(b, fixed, off_ptr + off_off, off64, noff, len, &start, &end);
  __global const DTYPE *wt = IX_BASE(w, DTYPE);
  __global const uchar *ix = idx_ptr + idx_off;
  __global const DTYPE *pw = IX_BASE(psw, DTYPE);
  __global DTYPE *dst = IX_BASE(out, DTYPE) + b * dim;
  const long d = (long)dim;
  long first = 0;
  for (; first + 64 <= d; first += 64)
    eb_block(wt, ix, is64, pw, has_psw, dst, start, end, len, rows, d, first, 4, mode, padding);
  for (; first + 16 <= d; first += 16)
    eb_block(wt, ix, is64, pw, has_psw, dst, start, end, len, rows, d, first, 1, mode, padding);
  for (; first < d; ++first) {
    float acc = mode == 2 ? -INFINITY : 0.0f;
    int count = 0;
    for (long j = start; j < end; ++j) {
      const long r = ix_fix(ix_load_index(ix, j, is64), rows, 0);
      if (r < 0 || r == padding) continue;
      float v = VLOAD(DTYPE, 1, wt + r * d + first);
      if (has_psw) v *= VLOAD(DTYPE, 1, pw + j);
      acc = mode == 2 ? ((isnan(v) || v > acc) ? v : acc) : acc + v;
      ++count;
    }
    if (count == 0) acc = 0.0f;
    if (mode == 1 && count > 0) acc /= (float)count;
    VSTORE(DTYPE, 1, acc, dst + first);
  }
}
