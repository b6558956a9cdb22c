/*
 * Shared pieces of the gather, scatter, index and embedding-bag programs.
 *
 * Every tensor arrives as a byte pointer plus a byte offset and is addressed
 * densely (the host makes inputs contiguous). Sizes are kernel arguments.
 * Index tensors are int32 or int64, chosen per launch by an `is64` argument,
 * so one build serves both.
 *
 * Build definitions: DTYPE (element type of the data, as stored) and ACC_T
 * (the type reductions accumulate in: float, int or long). Movement-only
 * programs are built with the unsigned type of the element's size.
 *
 * Reductions follow ScatterReduceType: 0 replace, 1 sum, 2 prod, 3 mean
 * (accumulated as a sum), 4 amax, 5 amin. Device atomics only exist for 32-
 * and 64-bit words, so reductions accumulate in an ACC_T scratch array and
 * the result is converted back to DTYPE afterwards; float accumulation uses a
 * compare-and-swap loop.
 */
#ifndef NERVA_INDEX_H
#define NERVA_INDEX_H

#define IX_REPLACE 0
#define IX_SUM 1
#define IX_PROD 2
#define IX_MEAN 3
#define IX_AMAX 4
#define IX_AMIN 5

/* The work-group size of most launches (the host rounds the range up to it;
 * the CPU row kernels take longer groups). */
#define IX_LOCAL 64

#define IX_PARAM(t) __global uchar *t##_ptr, ulong t##_off
#define IX_BASE(t, T) ((__global T *)(t##_ptr + t##_off))

/* Index element i of an int32 or int64 tensor. */
inline long ix_load_index(__global const uchar *base, ulong i, int is64) {
  return is64 ? ((__global const long *)base)[i] : (long)((__global const int *)base)[i];
}

/* An index made valid for a dimension of n: negative values count from the
 * end when `neg` is set; anything else outside [0, n) gives -1. */
inline long ix_fix(long v, long n, int neg) {
  if (neg && v < 0) v += n;
  return (v >= 0 && v < n) ? v : -1;
}

/* Unaligned views of 64 and 16 bytes: one 512-bit or 128-bit move each on
 * CPU devices, whatever the address (vload16 splits into 4-lane pieces). */
typedef uint16 ix_bytes64 __attribute__((aligned(1)));
typedef uint4 ix_bytes16 __attribute__((aligned(1)));

/* n bytes from s to d (s == 0: zeros): 256 at a time (all loads, then all
 * stores), then 64, 16 and single ones. */
inline void ix_copy_bytes(__global uchar *d, __global const uchar *s, ulong n) {
  ulong b = 0;
  if (s) {
    for (; b + 256 <= n; b += 256) {
      __global const ix_bytes64 *from = (__global const ix_bytes64 *)(s + b);
      const uint16 x0 = from[0], x1 = from[1], x2 = from[2], x3 = from[3];
      __global ix_bytes64 *to = (__global ix_bytes64 *)(d + b);
      to[0] = x0;
      to[1] = x1;
      to[2] = x2;
      to[3] = x3;
    }
    if (b == n) return;
    for (; b + 64 <= n; b += 64)
      *(__global ix_bytes64 *)(d + b) = *(__global const ix_bytes64 *)(s + b);
    for (; b + 16 <= n; b += 16)
      *(__global ix_bytes16 *)(d + b) = *(__global const ix_bytes16 *)(s + b);
    for (; b < n; ++b) d[b] = s[b];
  } else {
    for (; b + 64 <= n; b += 64) *(__global ix_bytes64 *)(d + b) = (uint16)0;
    for (; b < n; ++b) d[b] = 0;
  }
}

/* The first (up to four) cache lines of n bytes at p are read soon: random
 * rows are latency bound on CPUs, and asking for the row a few work items
 * ahead keeps several in flight. */
#define IX_PREFETCH(p) NERVA_PREFETCH(p)
#define IX_AHEAD 32
inline void ix_prefetch(__global const uchar *p, ulong n) {
  IX_PREFETCH(p);
  if (n > 64) IX_PREFETCH(p + 64);
  if (n > 128) IX_PREFETCH(p + 128);
  if (n > 192) IX_PREFETCH(p + 192);
}

/* Slices along one dimension: out[o][j][k] = in[o][index[j]][k] over
 * (outer, count, inner) = out's folded shape, rows of row_bytes bytes, the
 * input having dsize rows on the indexed dimension; an index outside it reads
 * 0. For CPUs: work item g copies chunk g % chunks (IX_CHUNK bytes) of out
 * row g / chunks with whole 64-byte moves, and prefetches the same chunk of
 * the row IX_AHEAD rows on. */
#define IX_CHUNK 16384
inline __global const uchar *ix_select_src(__global const uchar *in, __global const uchar *idx,
                                           int is64, ulong r, ulong rows, ulong count, long dsize,
                                           int neg, ulong row_bytes) {
  const ulong o = count >= rows ? 0 : r / count, j = r - o * count;
  const long v = ix_fix(ix_load_index(idx, j, is64), dsize, neg);
  return v < 0 ? 0 : in + (o * dsize + v) * row_bytes;
}
#define IX_SELECT_KERNEL(NAME)                                                 \
  __kernel void NAME(IX_PARAM(in), IX_PARAM(idx), int is64, IX_PARAM(out), ulong rows, \
                     ulong row_bytes, ulong count, long dsize, int neg, ulong chunks) { \
    const ulong g = get_global_id(0);                                          \
    if (g >= rows * chunks) return;                                            \
    const ulong r = chunks == 1 ? g : g / chunks, first = (g - r * chunks) * IX_CHUNK; \
    const ulong n = min(row_bytes - first, (ulong)IX_CHUNK);                   \
    __global const uchar *in = in_ptr + in_off, *idx = idx_ptr + idx_off;      \
    if (r + IX_AHEAD < rows) {                                                 \
      __global const uchar *ahead =                                            \
          ix_select_src(in, idx, is64, r + IX_AHEAD, rows, count, dsize, neg, row_bytes); \
      if (ahead) ix_prefetch(ahead + first, n);                                \
    }                                                                          \
    __global const uchar *src =                                                \
        ix_select_src(in, idx, is64, r, rows, count, dsize, neg, row_bytes);   \
    ix_copy_bytes(out_ptr + out_off + r * row_bytes + first, src ? src + first : 0, n); \
  }

/* The same selection for GPUs: DTYPE is a unit of up to 16 bytes dividing the
 * row (the host picks it), `inner` counts units, and work item g copies unit
 * g % inner of out row g / inner, so a warp reads and writes whole rows. */
#define IX_SELECT_GPU_KERNEL(NAME)                                             \
  __kernel void NAME(IX_PARAM(in), IX_PARAM(idx), int is64, IX_PARAM(out), ulong rows, \
                     ulong inner, ulong count, long dsize, int neg) {          \
    const ulong g = get_global_id(0);                                          \
    if (g >= rows * inner) return;                                             \
    ulong r, k, o, j;                                                          \
    if (rows * inner <= UINT_MAX) {                                            \
      r = (uint)g / (uint)inner;                                               \
      o = (uint)r / (uint)count;                                               \
    } else {                                                                   \
      r = g / inner;                                                           \
      o = r / count;                                                           \
    }                                                                          \
    k = g - r * inner;                                                         \
    j = r - o * count;                                                         \
    const long v = ix_fix(ix_load_index(idx_ptr + idx_off, j, is64), dsize, neg); \
    IX_BASE(out, DTYPE)[g] =                                                   \
        v < 0 ? (DTYPE)0 : IX_BASE(in, DTYPE)[(o * dsize + v) * inner + k];    \
  }

/* Element i of a dense (outer, count, inner) tensor as (o, j, k). */
inline void ix_fold(ulong i, ulong inner, ulong count, ulong *o, ulong *j, ulong *k) {
  const ulong row = i / inner;
  *k = i - row * inner;
  *o = row / count;
  *j = row - *o * count;
}

/* Walks element i of a tensor whose sizes and three stride sets (elements)
 * are in the table m: [rank, dim, sizes[8], a[8], b[8], c[8]]. Returns the
 * offsets along a and b, the offset along c without the dimension `dim`, and
 * the coordinate on `dim`. */
inline void ix_walk(__global const long *m, ulong i, long *a, long *b, long *c, long *at_dim) {
  const int rank = (int)m[0], dim = (int)m[1];
  long oa = 0, ob = 0, oc = 0, cd = 0;
  for (int k = rank - 1; k >= 0; --k) {
    const ulong size = (ulong)m[2 + k];
    const ulong q = i / size;
    const long ck = (long)(i - q * size);
    i = q;
    oa += ck * m[10 + k];
    ob += ck * m[18 + k];
    if (k == dim) cd = ck; else oc += ck * m[26 + k];
  }
  *a = oa;
  *b = ob;
  *c = oc;
  *at_dim = cd;
}

/* Advanced indexing with several index tensors. The table m holds
 * [R, slots, result sizes[8], input strides per result dim[8]] and per slot t
 * at 18 + 12 t: [is64, size of its input dim, that dim's stride, 0, index
 * strides per result dim[8]] (0 where the slot broadcasts). The eight slot
 * parameters are the index tensors (unused ones repeat a used one). Returns
 * the input offset of result element i, or -1 when one of its indices is
 * outside [-size, size). */
#define IX_SLOT_PARAMS                                                          \
  IX_PARAM(s0), IX_PARAM(s1), IX_PARAM(s2), IX_PARAM(s3), IX_PARAM(s4), IX_PARAM(s5), \
      IX_PARAM(s6), IX_PARAM(s7)
#define IX_SLOT_BASES                                                           \
  {s0_ptr + s0_off, s1_ptr + s1_off, s2_ptr + s2_off, s3_ptr + s3_off,          \
   s4_ptr + s4_off, s5_ptr + s5_off, s6_ptr + s6_off, s7_ptr + s7_off}
inline long ix_array_offset(__global const long *m, ulong i, __global uchar *const *slots) {
  const int rank = (int)m[0], nslots = (int)m[1];
  long coord[8];
  long off = 0;
  for (int k = rank - 1; k >= 0; --k) {
    const ulong size = (ulong)m[2 + k];
    const ulong q = i / size;
    coord[k] = (long)(i - q * size);
    i = q;
    off += coord[k] * m[10 + k];
  }
  for (int t = 0; t < nslots; ++t) {
    __global const long *s = m + 18 + 12 * t;
    long at = 0;
    for (int k = 0; k < rank; ++k) at += coord[k] * s[4 + k];
    const long v = ix_fix(ix_load_index(slots[t], at, (int)s[0]), s[1], 1);
    if (v < 0) return -1;
    off += v * s[2];
  }
  return off;
}

/* Embedding bags: the bag of position j: offset2bag[j] when given (o2b_len > 0), else the
 * last bag whose offset is <= j (binary search). -1 when there is none. */
inline long ebb_bag(__global const uchar *o2b, int o2b64, long o2b_len, __global const uchar *off,
                    int off64, long noff, long bags, long j) {
  if (o2b_len > 0) {
    const long b = j < o2b_len ? ix_load_index(o2b, j, o2b64) : -1;
    return (b >= 0 && b < bags) ? b : -1;
  }
  long lo = 0, hi = min(noff, bags);
  while (lo < hi) {
    const long mid = (lo + hi) / 2;
    if (ix_load_index(off, mid, off64) <= j) lo = mid + 1; else hi = mid;
  }
  return lo - 1;
}

#ifdef ACC_T
#if defined(ACC_IS_LONG)
#pragma OPENCL EXTENSION cl_khr_int64_base_atomics : enable
#pragma OPENCL EXTENSION cl_khr_int64_extended_atomics : enable
#endif

#define IX_REG REG_TYPE(DTYPE)
#define IX_TO_ACC(v) ((ACC_T)(v))
/* Accumulated value back to the stored type: floats convert, integers wrap
 * (PyTorch's integer arithmetic is modular in the element's own width). */
#if ACC_IS_FLOAT
#define IX_FROM_ACC(v) ((IX_REG)(v))
#else
#define IX_FROM_ACC(v) CONVERT_WRAP(DTYPE, 1, v)
#endif

inline ACC_T ix_identity(int op) {
#if ACC_IS_FLOAT
  if (op == IX_PROD) return 1.0f;
  if (op == IX_AMAX) return -INFINITY;
  if (op == IX_AMIN) return INFINITY;
  return 0.0f;
#elif defined(ACC_IS_LONG)
  if (op == IX_PROD) return 1;
  if (op == IX_AMAX) return LONG_MIN;
  if (op == IX_AMIN) return LONG_MAX;
  return 0;
#else
  if (op == IX_PROD) return 1;
  if (op == IX_AMAX) return INT_MIN;
  if (op == IX_AMIN) return INT_MAX;
  return 0;
#endif
}

/* a combined with b; amax and amin propagate NaN as PyTorch does. */
inline ACC_T ix_combine(ACC_T a, ACC_T b, int op) {
  switch (op) {
    case IX_REPLACE:
      return b;
    case IX_PROD:
      return a * b;
    case IX_AMAX:
#if ACC_IS_FLOAT
      if (isnan(a) || isnan(b)) return a + b;
#endif
      return a > b ? a : b;
    case IX_AMIN:
#if ACC_IS_FLOAT
      if (isnan(a) || isnan(b)) return a + b;
#endif
      return a < b ? a : b;
    default:
      return a + b;
  }
}

/* *p = combine(*p, v) atomically. */
#if ACC_IS_FLOAT
inline void ix_atomic(__global ACC_T *p, ACC_T v, int op) {
  volatile __global uint *w = (volatile __global uint *)p;
  uint old = *w;
  for (;;) {
    const uint next = as_uint(ix_combine(as_float(old), v, op));
    if (next == old && op != IX_REPLACE) return;
    const uint seen = atomic_cmpxchg(w, old, next);
    if (seen == old) return;
    old = seen;
  }
}
#elif defined(ACC_IS_LONG)
inline void ix_atomic(__global ACC_T *p, ACC_T v, int op) {
  volatile __global long *w = (volatile __global long *)p;
  if (op == IX_SUM || op == IX_MEAN) {
    atom_add(w, v);
  } else if (op == IX_AMAX) {
    atom_max(w, v);
  } else if (op == IX_AMIN) {
    atom_min(w, v);
  } else if (op == IX_REPLACE) {
    atom_xchg(w, v);
  } else {
    long old = *w;
    for (;;) {
      const long seen = atom_cmpxchg(w, old, old * v);
      if (seen == old) return;
      old = seen;
    }
  }
}
#else
inline void ix_atomic(__global ACC_T *p, ACC_T v, int op) {
  volatile __global int *w = (volatile __global int *)p;
  if (op == IX_SUM || op == IX_MEAN) {
    atomic_add(w, v);
  } else if (op == IX_AMAX) {
    atomic_max(w, v);
  } else if (op == IX_AMIN) {
    atomic_min(w, v);
  } else if (op == IX_REPLACE) {
    atomic_xchg(w, v);
  } else {
    int old = *w;
    for (;;) {
      const int seen = atomic_cmpxchg(w, old, old * v);
      if (seen == old) return;
      old = seen;
    }
  }
}
#endif

/* One element of the data tensor as ACC_T. */
#define IX_LOAD_ACC(base, i) IX_TO_ACC(VLOAD(DTYPE, 1, (base) + (i)))
#define IX_STORE_ACC(v, base, i) VSTORE(DTYPE, 1, IX_FROM_ACC(v), (base) + (i))

/* A mean of `sum` over `count` values: floor division for integers. */
inline ACC_T ix_mean(ACC_T sum, ACC_T count) {
#if ACC_IS_FLOAT
  return sum / count;
#else
  ACC_T q = sum / count;
  if ((sum % count != 0) && ((sum < 0) != (count < 0))) q -= 1;
  return q;
#endif
}

/* Accumulation into a scratch array and a count per position: the scattered
 * value v of position p. */
inline void ix_accumulate(__global ACC_T *acc, __global int *count, int counted, ulong p, ACC_T v,
                          int op) {
  ix_atomic(acc + p, v, op);
  if (counted) atomic_inc((volatile __global int *)count + p);
}
#endif /* ACC_T */

#endif /* NERVA_INDEX_H */
