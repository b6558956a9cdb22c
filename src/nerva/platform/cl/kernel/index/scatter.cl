/*
 * Scatter (torch.scatter / scatter_reduce along one dimension). Both kernels
 * walk index's shape with the table of ix_walk: a = index strides, b = src
 * strides, c = out strides (out is contiguous, dim left out). An index
 * outside [0, dsize) is skipped: nothing is written for it.
 */
__kernel void scatter_replace(IX_PARAM(src), IX_PARAM(idx), int is64, IX_PARAM(out),
                              __global const long *m, ulong n, long dsize, long dstride) {
  const ulong i = get_global_id(0);
  if (i >= n) return;
  long ia, ib, ic, cd;
  ix_walk(m, i, &ia, &ib, &ic, &cd);
  const long v = ix_fix(ix_load_index(idx_ptr + idx_off, ia, is64), dsize, 0);
  if (v < 0) return;
  VSTORE(DTYPE, 1, VLOAD(DTYPE, 1, IX_BASE(src, DTYPE) + ib), IX_BASE(out, DTYPE) + ic + v * dstride);
}

/* The reductions: into the scratch of the accumulation frame. */
__kernel void Scatter(IX_PARAM(src), IX_PARAM(idx), int is64, __global ACC_T *acc,
                      __global int *count, int counted, int op, __global const long *m, ulong n,
                      long dsize, long dstride) {
  const ulong i = get_global_id(0);
  if (i >= n) return;
  long ia, ib, ic, cd;
  ix_walk(m, i, &ia, &ib, &ic, &cd);
  const long v = ix_fix(ix_load_index(idx_ptr + idx_off, ia, is64), dsize, 0);
  if (v < 0) return;
  ix_accumulate(acc, count, counted, ic + v * dstride, IX_LOAD_ACC(IX_BASE(src, DTYPE), ib), op);
}

/*
 * Row path of the reductions, for an index constant along its last
 * dimension (not `dim`): every index row of `len` elements sends one src row
 * to one out row. The rows are bucketed by destination (count, scan, fill),
 * then each out row combines its own list without atomics.
 * Index row i starts at element i * len of index's shape; its key is the out
 * row it reaches (out offset / width), or -1 when the index is outside.
 */
inline long sr_key(__global const uchar *idx, int is64, __global const long *m, ulong i, long len,
                   long dsize, long dstride, long width, __global long *src_at) {
  long ia, ib, ic, cd;
  ix_walk(m, i * len, &ia, &ib, &ic, &cd);
  const long v = ix_fix(ix_load_index(idx, ia, is64), dsize, 0);
  *src_at = ib;
  return v < 0 ? -1 : (ic + v * dstride) / width;
}

__kernel void scatter_row_key(IX_PARAM(idx), int is64, __global const long *m, ulong rows,
                              long len, long dsize, long dstride, long width,
                              __global long *key, __global long *src_at, __global int *count) {
  const ulong i = get_global_id(0);
  if (i >= rows) return;
  const long k = sr_key(idx_ptr + idx_off, is64, m, i, len, dsize, dstride, width, src_at + i);
  key[i] = k;
  if (k >= 0) atomic_inc((volatile __global int *)count + k);
}

/* The bucketing for CPUs, without atomics: the keys (one item per row), then
 * `parts` items each count the keys of one contiguous range of rows into its
 * own histogram (count[p * out_rows + k]), one item scans them (bucket k
 * holds part 0's rows, then part 1's, ...), and the parts fill their slots.
 * Each list is thus in row order: sums come out the same on every run. */

/* A quotient in 32 bits where both values fit: several times cheaper. */
inline ulong sr_div(ulong a, ulong b) {
  return (a <= UINT_MAX && b <= UINT_MAX) ? (ulong)((uint)a / (uint)b) : a / b;
}

/* sr_key without the divisions that are not needed: index row i has
 * coordinate 0 on the last dimension and i's quotient on the others, the
 * outermost taking what is left. */
inline long sr_key_cpu(__global const uchar *idx, int is64, __global const long *m, ulong i,
                       long dsize, long dstride, long width, __global long *src_at) {
  const int rank = (int)m[0], dim = (int)m[1];
  long oa = 0, ob = 0, oc = 0;
  for (int k = rank - 2; k >= 0; --k) {
    const ulong size = (ulong)m[2 + k];
    const ulong q = k == 0 ? 0 : sr_div(i, size);
    const long ck = (long)(i - q * size);
    i = q;
    oa += ck * m[10 + k];
    ob += ck * m[18 + k];
    if (k != dim) oc += ck * m[26 + k];
  }
  const long v = ix_fix(ix_load_index(idx, oa, is64), dsize, 0);
  *src_at = ob;
  return v < 0 ? -1 : (long)sr_div((ulong)(oc + v * dstride), (ulong)width);
}

__kernel void scatter_row_key_cpu(IX_PARAM(idx), int is64, __global const long *m, ulong rows,
                                  long dsize, long dstride, long width, __global long *key,
                                  __global long *src_at) {
  const ulong i = get_global_id(0);
  if (i >= rows) return;
  key[i] = sr_key_cpu(idx_ptr + idx_off, is64, m, i, dsize, dstride, width, src_at + i);
}

__kernel void scatter_row_count_cpu(__global const long *key, __global int *count, ulong rows,
                                    ulong out_rows, ulong parts) {
  const ulong p = get_global_id(0);
  if (p >= parts) return;
  __global int *c = count + p * out_rows;
  for (ulong k = 0; k < out_rows; ++k) c[k] = 0;
  const ulong hi = rows * (p + 1) / parts;
  for (ulong i = rows * p / parts; i < hi; ++i) {
    const long k = key[i];
    if (k >= 0) ++c[k];
  }
}

__kernel void scatter_row_scan_cpu(__global int *count, __global int *start, ulong out_rows,
                                   ulong parts) {
  if (get_global_id(0) != 0) return;
  int sum = 0;
  for (ulong k = 0; k < out_rows; ++k) {
    start[k] = sum;
    for (ulong p = 0; p < parts; ++p) {
      const int c = count[p * out_rows + k];
      count[p * out_rows + k] = sum;
      sum += c;
    }
  }
  start[out_rows] = sum;
}

__kernel void scatter_row_fill_cpu(__global const long *key, __global const long *src_at,
                                   __global int *cursor, __global long *order, ulong rows,
                                   ulong out_rows, ulong parts) {
  const ulong p = get_global_id(0);
  if (p >= parts) return;
  __global int *c = cursor + p * out_rows;
  const ulong hi = rows * (p + 1) / parts;
  for (ulong i = rows * p / parts; i < hi; ++i) {
    const long k = key[i];
    if (k >= 0) order[c[k]++] = src_at[i];
  }
}

__kernel void scatter_row_fill(__global const long *key, __global const long *src_at,
                               __global int *cursor, __global long *order, ulong rows) {
  const ulong i = get_global_id(0);
  if (i >= rows) return;
  const long k = key[i];
  if (k < 0) return;
  order[atomic_inc((volatile __global int *)cursor + k)] = src_at[i];
}

/* Work item g: columns [W c, W c + W) of out row t (g = t * chunks + c).
 * Columns below len combine the input (include_self) with the src rows of
 * the list; a row without any, and columns from len on, keep the input.
 * GPUs take 4 columns, so that the items of a warp read whole src rows, and
 * sum two list entries per step (PAIRS) to keep more loads in flight. */
#define SR_REDUCE_KERNEL(NAME, W, PAIRS)                                                         \
  __kernel void NAME(IX_PARAM(src), IX_PARAM(in), IX_PARAM(out), __global const int *start,  \
                     __global const long *order, ulong out_rows, ulong chunks, long width,    \
                     long len, int op, int include_self) {                                    \
    const ulong g = get_global_id(0);                                                         \
    if (g >= out_rows * chunks) return;                                                       \
    const ulong t = g / chunks;                                                               \
    const long first = (long)(g - t * chunks) * W;                                            \
    const int lo = start[t], hi = start[t + 1];                                               \
    __global const DTYPE *s = IX_BASE(src, DTYPE) + first;                                    \
    __global const DTYPE *self = IX_BASE(in, DTYPE) + t * width + first;                      \
    __global DTYPE *dst = IX_BASE(out, DTYPE) + t * width + first;                            \
    const long end = hi > lo ? min(width - first, len - first) : 0;                           \
    if (end >= W && op == IX_SUM) {                                                           \
      NERVA_VEC(ACC_T, W) acc =                                                               \
          include_self ? SR_LOAD(W, self) : (NERVA_VEC(ACC_T, W))0;                           \
      int r = lo;                                                                             \
      for (; PAIRS && r + 1 < hi; r += 2) {                                                   \
        const long a = order[r], b = order[r + 1];                                            \
        acc += SR_LOAD(W, s + a) + SR_LOAD(W, s + b);                                         \
      }                                                                                       \
      for (; r < hi; ++r) acc += SR_LOAD(W, s + order[r]);                                    \
      VSTORE(DTYPE, W, CONVERT_WRAP(DTYPE, W, acc), dst);                                     \
      return;                                                                                 \
    }                                                                                         \
    const long w = min((long)W, width - first);                                               \
    for (long k = 0; k < w; ++k) {                                                            \
      ACC_T r = IX_LOAD_ACC(self, k);                                                         \
      if (k < end) {                                                                          \
        ACC_T acc = ix_identity(op);                                                          \
        for (int j = lo; j < hi; ++j) acc = ix_combine(acc, IX_LOAD_ACC(s + order[j], k), op); \
        r = include_self ? ix_combine(r, acc, op) : acc;                                      \
      }                                                                                       \
      IX_STORE_ACC(r, dst, k);                                                                \
    }                                                                                         \
  }
#define SR_LOAD(W, p) NERVA_CAT(convert_, NERVA_VEC(ACC_T, W))(VLOAD(DTYPE, W, p))
SR_REDUCE_KERNEL(scatter_row_reduce_gpu, 4, 1)

/* The combining step for CPUs: work item t takes the whole of out row t.
 * Sums go in blocks of 64 columns (four 16-wide accumulators), then 16,
 * loading float rows with single unaligned moves; while the first block
 * runs, the src row IX_AHEAD list entries on (in the next rows' lists too)
 * is prefetched. The other reductions, and the columns left, go one column
 * at a time. */
#define SR_IS_float 1
#if NERVA_CAT(SR_IS_, DTYPE)
typedef float16 sr_float16 __attribute__((aligned(4)));
#define SR_LOAD16(p) (*(__global const sr_float16 *)(p))
#define SR_STORE16(v, p) (*(__global sr_float16 *)(p) = (v))
#else
#define SR_LOAD16(p) SR_LOAD(16, p)
#define SR_STORE16(v, p) VSTORE(DTYPE, 16, CONVERT_WRAP(DTYPE, 16, v), p)
#endif
__attribute__((always_inline)) inline void sr_sum_block(
    __global const DTYPE *s, __global const DTYPE *self, __global DTYPE *dst,
    __global const long *order, int lo, int hi, int total, long first, const int nv,
    int include_self, ulong row_bytes) {
  NERVA_VEC(ACC_T, 16) acc[4];
  _Pragma("unroll") for (int q = 0; q < 4; ++q) if (q < nv)
    acc[q] = include_self ? SR_LOAD16(self + first + 16 * q) : (NERVA_VEC(ACC_T, 16))0;
  for (int r = lo; r < hi; ++r) {
    if (first == 0 && r + IX_AHEAD < total)
      ix_prefetch((__global const uchar *)(s + order[r + IX_AHEAD]), row_bytes);
    __global const DTYPE *p = s + order[r] + first;
    _Pragma("unroll") for (int q = 0; q < 4; ++q) if (q < nv)
      acc[q] += SR_LOAD16(p + 16 * q);
  }
  _Pragma("unroll") for (int q = 0; q < 4; ++q) if (q < nv)
    SR_STORE16(acc[q], dst + first + 16 * q);
}

__kernel void scatter_row_reduce_cpu(IX_PARAM(src), IX_PARAM(in), IX_PARAM(out),
                                     __global const int *start, __global const long *order,
                                     ulong out_rows, long width, long len, int op,
                                     int include_self) {
  const ulong t = get_global_id(0);
  if (t >= out_rows) return;
  const int lo = start[t], hi = start[t + 1], total = start[out_rows];
  __global const DTYPE *s = IX_BASE(src, DTYPE);
  __global const DTYPE *self = IX_BASE(in, DTYPE) + t * width;
  __global DTYPE *dst = IX_BASE(out, DTYPE) + t * width;
  const long end = hi > lo ? min(width, len) : 0;
  const ulong row_bytes = (ulong)end * sizeof(DTYPE);
  long first = 0;
  if (op == IX_SUM) {
    for (; first + 64 <= end; first += 64)
      sr_sum_block(s, self, dst, order, lo, hi, total, first, 4, include_self, row_bytes);
    for (; first + 16 <= end; first += 16)
      sr_sum_block(s, self, dst, order, lo, hi, total, first, 1, include_self, row_bytes);
  }
  for (long k = first; k < width; ++k) {
    ACC_T r = IX_LOAD_ACC(self, k);
    if (k < end) {
      ACC_T acc = ix_identity(op);
      for (int j = lo; j < hi; ++j) acc = ix_combine(acc, IX_LOAD_ACC(s + order[j], k), op);
      r = include_self ? ix_combine(r, acc, op) : acc;
    }
    IX_STORE_ACC(r, dst, k);
  }
}

/* scatter_row_scan for GPUs, as one group of SCAN_LOCAL items: tiles of
 * SCAN_LOCAL * SCAN_PER counts, each item holding SCAN_PER consecutive ones,
 * the item sums scanned in local memory, then written back with the carry of
 * the tiles before. */
#define SCAN_LOCAL 256
#define SCAN_PER 16
__kernel __attribute__((reqd_work_group_size(SCAN_LOCAL, 1, 1))) void scatter_row_scan_gpu(
    __global int *count, __global int *start, ulong n) {
  __local int part[SCAN_LOCAL];
  const int l = get_local_id(0);
  int carry = 0;
  for (ulong base = 0; base < n; base += SCAN_LOCAL * SCAN_PER) {
    const ulong first = base + (ulong)l * SCAN_PER;
    int c[SCAN_PER], own = 0;
    for (int k = 0; k < SCAN_PER; ++k) {
      c[k] = first + k < n ? count[first + k] : 0;
      own += c[k];
    }
    part[l] = own;
    barrier(CLK_LOCAL_MEM_FENCE);
    for (int d = 1; d < SCAN_LOCAL; d <<= 1) {
      const int add = l >= d ? part[l - d] : 0;
      barrier(CLK_LOCAL_MEM_FENCE);
      part[l] += add;
      barrier(CLK_LOCAL_MEM_FENCE);
    }
    int sum = carry + part[l] - own;
    for (int k = 0; k < SCAN_PER && first + k < n; ++k) {
      start[first + k] = sum;
      count[first + k] = sum;
      sum += c[k];
    }
    carry += part[SCAN_LOCAL - 1];
    barrier(CLK_LOCAL_MEM_FENCE);
  }
  if (l == 0) start[n] = carry;
}
