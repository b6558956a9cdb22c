/*
 * TopK: the k largest (LARGEST) or smallest keys of each row with their
 * positions, in order. Smallest-k is largest-k of the negated keys; keys are
 * compared as float, and every row is ordered descending by key in local
 * memory with the filler key -2147483647.0f. Values are read back from their
 * source positions, so they keep their own type exactly.
 *
 * - topk_axis0 / topk_axis1: one group of LOCAL_SIZE0 items sorts a whole row
 *   of up to 2 * LOCAL_SIZE0 keys.
 * - topk_axis0_bitnoic_segment / topk_axis1_bitnoic_segment (IS_SEGMENT): one
 *   group of BLOCK_SIZE items walks the row in `limit` segments of
 *   2 * BLOCK_SIZE keys (a fixed 9-stage network), keeping the running best
 *   BLOCK_SIZE keys (initially filler keys at position 0) in a local buffer of
 *   3 * BLOCK_SIZE keys and merging each sorted segment into them (a segment
 *   with no key above the current k-th best is skipped); k is at most
 *   BLOCK_SIZE.
 *
 * - topk_axis0_select / topk_axis1_select (IS_SELECT): one item per row keeps
 *   the best k <= SELECT_K keys in private memory (devices that run groups as
 *   loops, where barriers cost most).
 *
 * - topk_head (TOPK_HEAD): copies the first k entries of rows that the
 *   bitonic sort ordered in full.
 *
 * Build definitions: IN_DTYPE, OUT_DTYPE, INDICES_DTYPE, LARGEST, IS_3D
 * (axis1 on a middle axis: x inner, y searched, z outer), LOCAL_SIZE0 or
 * IS_SEGMENT with BLOCK_SIZE. _axis0 searches along x of (x, row) views,
 * _axis1 along y.
 */
// #include "common.h"

#ifndef TOPK_HEAD
#define TOPK_FILLER (-2147483647.0f)
#define IN_REG DECL_VEC_TYPE(IN_DTYPE, 1)

#ifdef LARGEST
#define TOPK_KEY(v) (v)
#else
#define TOPK_KEY(v) (-(v))
#endif

/* Row pointers and byte strides along the searched axis. */
typedef struct {
  __global const uchar *src;
  __global uchar *values, *indices;
  uint src_s, values_s, indices_s;
} topk_row_t;

inline float topk_load_key(const topk_row_t *r, uint p) {
  return TOPK_KEY(CONVERT(float, 1, VLOAD(IN_DTYPE, 1, (__global IN_DTYPE *)(r->src + p * r->src_s))));
}

/* Compare-exchange keeping the larger key first (NaN never moves). */
inline void topk_order(__local float *keys, __local uint *pos, uint a, uint b, bool larger_first) {
  const float ka = keys[a], kb = keys[b];
  const uint pa = pos[a], pb = pos[b];
  const bool swap = larger_first ? ka < kb : ka > kb;
  keys[a] = swap ? kb : ka;
  keys[b] = swap ? ka : kb;
  pos[a] = swap ? pb : pa;
  pos[b] = swap ? pa : pb;
}

/* Sorts keys[0, 2 * items) descending; item i of `items` runs comparator i. */
inline void topk_sort(__local float *keys, __local uint *pos, uint i, int num_stages) {
  for (int stage = 0; stage <= num_stages; ++stage) {
    const uint signo = (i >> stage) & 1;
    for (int pass = 0; pass <= stage; ++pass) {
      const uint post_shift = stage - pass;
      const uint d = 1u << post_shift;
      const uint left = ((i >> post_shift) << (post_shift + 1)) + (i & (d - 1));
      topk_order(keys, pos, left, left + d, !signo);
      barrier(CLK_LOCAL_MEM_FENCE);
    }
  }
}

/* Writes the first k entries; a filler left by NaN keys reads position 0. */
inline void topk_store(const topk_row_t *r, __local const uint *pos, uint i, uint items, int k,
                       int width) {
  for (uint j = i; j < (uint)k; j += items) {
    const uint p = pos[j] < (uint)width ? pos[j] : 0;
    const IN_REG v = VLOAD(IN_DTYPE, 1, (__global IN_DTYPE *)(r->src + p * r->src_s));
    VSTORE(OUT_DTYPE, 1, CONVERT(OUT_DTYPE, 1, v), (__global OUT_DTYPE *)(r->values + j * r->values_s));
    *(__global INDICES_DTYPE *)(r->indices + j * r->indices_s) = (INDICES_DTYPE)p;
  }
}

#if defined(IS_SELECT)
/* One item per row keeps its best k keys (k <= SELECT_K) in private memory and
 * inserts every key above the current k-th: no local memory and no barriers,
 * for devices that run a group's items as a loop. NaN counts as the largest
 * value, as torch.topk orders it. */
inline float topk_select_key(const topk_row_t *r, uint p) {
  const float key = topk_load_key(r, p);
#ifdef LARGEST
  return isnan(key) ? INFINITY : key;
#else
  return isnan(key) ? -INFINITY : key;
#endif
}

inline void topk_select(const topk_row_t *r, int width, int k) {
  float keys[SELECT_K];
  uint pos[SELECT_K];
  int n = 0;
  for (int p = 0; p < width; ++p) {
    const float key = topk_select_key(r, (uint)p);
    if (n == k && !(key > keys[k - 1])) continue;
    int j = n < k ? n++ : k - 1;
    for (; j > 0 && key > keys[j - 1]; --j) {
      keys[j] = keys[j - 1];
      pos[j] = pos[j - 1];
    }
    keys[j] = key;
    pos[j] = (uint)p;
  }
  for (int j = 0; j < k; ++j) {
    const IN_REG v = VLOAD(IN_DTYPE, 1, (__global IN_DTYPE *)(r->src + pos[j] * r->src_s));
    VSTORE(OUT_DTYPE, 1, CONVERT(OUT_DTYPE, 1, v), (__global OUT_DTYPE *)(r->values + j * r->values_s));
    *(__global INDICES_DTYPE *)(r->indices + j * r->indices_s) = (INDICES_DTYPE)pos[j];
  }
}
#define TOPK_LOCAL 1
#define TOPK_EXTRA_LOCAL
#define TOPK_CALL(r, item) topk_select(&r, width, k)
#define TOPK_NAME(axis) topk_##axis##_select
#elif !defined(IS_SEGMENT)
inline void topk_row(const topk_row_t *r, uint i, int num_stages, int width, int k,
                     __local float *keys, __local uint *pos) {
  const uint hi = i + LOCAL_SIZE0;
  keys[i] = (int)i < width ? topk_load_key(r, i) : TOPK_FILLER;
  keys[hi] = (int)hi < width ? topk_load_key(r, hi) : TOPK_FILLER;
  pos[i] = i;
  pos[hi] = hi;
  barrier(CLK_LOCAL_MEM_FENCE);
  topk_sort(keys, pos, i, num_stages);
  topk_store(r, pos, i, LOCAL_SIZE0, k, width);
}
#define TOPK_LOCAL 2048
#define TOPK_EXTRA_LOCAL
#define TOPK_CALL(r, item) topk_row(&r, item, num_stages, width, k, keys, pos)
#define TOPK_NAME(axis) topk_##axis
#else
/* best = keys[0, BLOCK_SIZE), segment = keys[BLOCK_SIZE, 3 * BLOCK_SIZE). */
inline void topk_segments(const topk_row_t *r, uint i, int limit, int width, int k,
                          __local float *keys, __local uint *pos, __local int *improves) {
  keys[i] = TOPK_FILLER;
  pos[i] = 0;
  for (int s = 0; s < limit; ++s) {
    const uint base = (uint)s * (2 * BLOCK_SIZE);
    const uint a = base + i, b = base + i + BLOCK_SIZE;
    keys[BLOCK_SIZE + i] = (int)a < width ? topk_load_key(r, a) : TOPK_FILLER;
    keys[2 * BLOCK_SIZE + i] = (int)b < width ? topk_load_key(r, b) : TOPK_FILLER;
    pos[BLOCK_SIZE + i] = a;
    pos[2 * BLOCK_SIZE + i] = b;
    /* A segment with no key above the current k-th best changes nothing. */
    if (i == 0) *improves = 0;
    barrier(CLK_LOCAL_MEM_FENCE);
    const float kth = keys[k - 1];
    if (keys[BLOCK_SIZE + i] > kth || keys[2 * BLOCK_SIZE + i] > kth) *improves = 1;
    barrier(CLK_LOCAL_MEM_FENCE);
    const bool skip = *improves == 0;
    barrier(CLK_LOCAL_MEM_FENCE);
    if (skip) continue;
    topk_sort(keys + BLOCK_SIZE, pos + BLOCK_SIZE, i, 9);
    /* best (descending) against the segment's top half reversed: the larger
     * of each pair form a bitonic run holding the best BLOCK_SIZE keys. */
    topk_order(keys, pos, i, 2 * BLOCK_SIZE - 1 - i, true);
    barrier(CLK_LOCAL_MEM_FENCE);
    for (uint d = BLOCK_SIZE / 2; d > 0; d >>= 1) {
      if (i < BLOCK_SIZE / 2) {
        const uint left = ((i / d) * 2 * d) + (i & (d - 1));
        topk_order(keys, pos, left, left + d, true);
      }
      barrier(CLK_LOCAL_MEM_FENCE);
    }
  }
  topk_store(r, pos, i, BLOCK_SIZE, k, width);
}
#define TOPK_LOCAL (3 * BLOCK_SIZE)
#define TOPK_EXTRA_LOCAL __local int improves;
#define TOPK_CALL(r, item) topk_segments(&r, item, limit, width, k, keys, pos, &improves)
#define TOPK_NAME(axis) topk_##axis##_bitnoic_segment
#endif

#ifdef IS_SEGMENT
#define TOPK_PARAMS(DECL) DECL(src), DECL(values), DECL(indices), int limit, int width, int k
#else
#define TOPK_PARAMS(DECL) DECL(src), DECL(values), DECL(indices), int num_stages, int width, int k
#endif

#define TOPK_ROW(r, OFF, AXIS)                                                 \
  topk_row_t r;                                                              \
  r.src = TENSOR_BASE(src) + OFF(src);                                       \
  r.values = TENSOR_BASE(values) + OFF(values);                              \
  r.indices = TENSOR_BASE(indices) + OFF(indices);                           \
  r.src_s = src_stride_##AXIS;                                               \
  r.values_s = values_stride_##AXIS;                                         \
  r.indices_s = indices_stride_##AXIS;

#define AXIS0_OFF(name) get_global_id(1) * name##_stride_y
#ifdef IS_3D
#define AXIS1_DECL DECL_TENSOR3D
#define AXIS1_OFF(name) (get_global_id(0) * name##_stride_x + get_global_id(2) * name##_stride_z)
#else
#define AXIS1_DECL DECL_TENSOR2D
#define AXIS1_OFF(name) get_global_id(0) * name##_stride_x
#endif

__kernel void TOPK_NAME(axis0)(TOPK_PARAMS(DECL_TENSOR2D)) {
  __local float keys[TOPK_LOCAL];
  __local uint pos[TOPK_LOCAL];
  TOPK_EXTRA_LOCAL
  TOPK_ROW(r, AXIS0_OFF, x)
  TOPK_CALL(r, get_local_id(0));
}

__kernel void TOPK_NAME(axis1)(TOPK_PARAMS(AXIS1_DECL)) {
  __local float keys[TOPK_LOCAL];
  __local uint pos[TOPK_LOCAL];
  TOPK_EXTRA_LOCAL
  TOPK_ROW(r, AXIS1_OFF, y)
  TOPK_CALL(r, get_local_id(1));
}
#endif /* TOPK_HEAD */

#ifdef TOPK_HEAD
/* The first k entries of fully sorted rows ((x inner, y sorted, z outer)
 * views), for a k beyond the segment variant on long rows. */
__kernel void topk_head(DECL_TENSOR3D(sorted), DECL_TENSOR3D(sorted_indices), DECL_TENSOR3D(values),
                        DECL_TENSOR3D(indices)) {
  const size_t x = get_global_id(0), j = get_global_id(1), z = get_global_id(2);
  const DECL_VEC_TYPE(IN_DTYPE, 1) v = VLOAD(IN_DTYPE, 1, TENSOR3D_PTR(sorted, IN_DTYPE, x, j, z));
  VSTORE(OUT_DTYPE, 1, CONVERT(OUT_DTYPE, 1, v), TENSOR3D_PTR(values, OUT_DTYPE, x, j, z));
  *TENSOR3D_PTR(indices, INDICES_DTYPE, x, j, z) =
      (INDICES_DTYPE)*TENSOR3D_PTR(sorted_indices, long, x, j, z);
}
#endif
