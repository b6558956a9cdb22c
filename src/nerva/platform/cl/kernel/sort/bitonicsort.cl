/*
 * Bitonic sort of long rows, one launch per (stage, pass): one work item per
 * comparator (half the extended row) and per row. "_init" reads the source
 * (filler keys past BLOCK_SIZE) and writes each compared pair into the value
 * scratch (and the index scratch, starting from the positions); "_loop"
 * compares within the scratch. The last launch is built with LAST_LOOP and
 * also copies the pair's positions below BLOCK_SIZE to the destination (and
 * the index output). Keys are compared as float; the scratch keeps values in
 * TEMP_DTYPE.
 *
 * Build definitions: BLOCK_SIZE (row length), IN_DTYPE, OUT_DTYPE, TEMP_DTYPE,
 * INDICES_DTYPE and TEMP_INDICES_DTYPE (with WITH_INDICES), DESCENDING,
 * WITH_INDICES, IS_3D (axis1 on a middle axis: x inner, y sorted, z outer),
 * LAST_LOOP. _axis0 sorts along x of (x, row) views, _axis1 along y.
 */
// #include "common.h"
// #include "sort.h"

#define TEMP_REG DECL_VEC_TYPE(TEMP_DTYPE, 1)

/* Row pointers and byte strides along the sorted axis of every tensor. */
typedef struct {
  __global const uchar *src;
  __global uchar *temp, *dst, *temp_idx, *idx;
  uint src_s, temp_s, dst_s, temp_idx_s, idx_s;
} sort_row_t;

inline TEMP_REG sort_read_source(const sort_row_t *r, uint p) {
  return p < BLOCK_SIZE
             ? CONVERT(TEMP_DTYPE, 1, VLOAD(IN_DTYPE, 1, (__global IN_DTYPE *)(r->src + p * r->src_s)))
             : CONVERT(TEMP_DTYPE, 1, FILLER_KEY);
}

/* Comparator x of the row: compares, exchanges and writes back its pair. */
inline void bitonic_step(const sort_row_t *r, uint x, uint post_shift, uint pair_distance,
                         uint stage, bool from_source) {
  const uint left = ((x >> post_shift) << (post_shift + 1)) + (x & (pair_distance - 1));
  const uint right = left + pair_distance;
  __global TEMP_DTYPE *tl = (__global TEMP_DTYPE *)(r->temp + left * r->temp_s);
  __global TEMP_DTYPE *tr = (__global TEMP_DTYPE *)(r->temp + right * r->temp_s);
  TEMP_REG a, b;
  uint ia = left, ib = right;
  if (from_source) {
    a = sort_read_source(r, left);
    b = sort_read_source(r, right);
  } else {
    a = VLOAD(TEMP_DTYPE, 1, tl);
    b = VLOAD(TEMP_DTYPE, 1, tr);
#ifdef WITH_INDICES
    ia = (uint)*(__global TEMP_INDICES_DTYPE *)(r->temp_idx + left * r->temp_idx_s);
    ib = (uint)*(__global TEMP_INDICES_DTYPE *)(r->temp_idx + right * r->temp_idx_s);
#endif
  }
  if (bitonic_exchange(CONVERT(float, 1, a), CONVERT(float, 1, b), (x >> stage) & 1)) {
    const TEMP_REG v = a;
    a = b;
    b = v;
    const uint i = ia;
    ia = ib;
    ib = i;
  }
  VSTORE(TEMP_DTYPE, 1, a, tl);
  VSTORE(TEMP_DTYPE, 1, b, tr);
#ifdef WITH_INDICES
  *(__global TEMP_INDICES_DTYPE *)(r->temp_idx + left * r->temp_idx_s) = (TEMP_INDICES_DTYPE)ia;
  *(__global TEMP_INDICES_DTYPE *)(r->temp_idx + right * r->temp_idx_s) = (TEMP_INDICES_DTYPE)ib;
#endif
#ifdef LAST_LOOP
  if (left < BLOCK_SIZE) {
    VSTORE(OUT_DTYPE, 1, CONVERT(OUT_DTYPE, 1, a), (__global OUT_DTYPE *)(r->dst + left * r->dst_s));
#ifdef WITH_INDICES
    *(__global INDICES_DTYPE *)(r->idx + left * r->idx_s) = (INDICES_DTYPE)ia;
#endif
  }
  if (right < BLOCK_SIZE) {
    VSTORE(OUT_DTYPE, 1, CONVERT(OUT_DTYPE, 1, b), (__global OUT_DTYPE *)(r->dst + right * r->dst_s));
#ifdef WITH_INDICES
    *(__global INDICES_DTYPE *)(r->idx + right * r->idx_s) = (INDICES_DTYPE)ib;
#endif
  }
#endif
}

/* Kernel parameters: source, [index scratch, index output,] value scratch,
 * destination, then the pass. */
#ifdef WITH_INDICES
#define SORT_PARAMS(DECL)                                                      \
  DECL(src), DECL(temp_indices), DECL(indices), DECL(temp), DECL(dst), uint post_shift, \
      uint pair_distance, uint stage
#define SORT_INDEX_ROW(r, OFF)                                                 \
  r.temp_idx = TENSOR_BASE(temp_indices) + OFF(temp_indices);                \
  r.idx = TENSOR_BASE(indices) + OFF(indices);
#else
#define SORT_PARAMS(DECL)                                                      \
  DECL(src), DECL(temp), DECL(dst), uint post_shift, uint pair_distance, uint stage
#define SORT_INDEX_ROW(r, OFF)                                                 \
  r.temp_idx = 0;                                                            \
  r.idx = 0;
#define temp_indices_stride_x 0
#define temp_indices_stride_y 0
#define indices_stride_x 0
#define indices_stride_y 0
#endif

/* Fills a sort_row_t: OFF(name) is the row's byte offset, AXIS the stride suffix. */
#define SORT_ROW(r, OFF, AXIS)                                                 \
  sort_row_t r;                                                              \
  r.src = TENSOR_BASE(src) + OFF(src);                                       \
  r.temp = TENSOR_BASE(temp) + OFF(temp);                                    \
  r.dst = TENSOR_BASE(dst) + OFF(dst);                                       \
  SORT_INDEX_ROW(r, OFF)                                                     \
  r.src_s = src_stride_##AXIS;                                               \
  r.temp_s = temp_stride_##AXIS;                                             \
  r.dst_s = dst_stride_##AXIS;                                               \
  r.temp_idx_s = temp_indices_stride_##AXIS;                                 \
  r.idx_s = indices_stride_##AXIS;

#define AXIS0_OFF(name) get_global_id(1) * name##_stride_y
#ifdef IS_3D
#define AXIS1_DECL DECL_TENSOR3D
#define AXIS1_OFF(name) (get_global_id(0) * name##_stride_x + get_global_id(2) * name##_stride_z)
#else
#define AXIS1_DECL DECL_TENSOR2D
#define AXIS1_OFF(name) get_global_id(0) * name##_stride_x
#endif

__kernel void bitonicsort_axis0_init(SORT_PARAMS(DECL_TENSOR2D)) {
  SORT_ROW(r, AXIS0_OFF, x)
  bitonic_step(&r, get_global_id(0), post_shift, pair_distance, stage, true);
}

__kernel void bitonicsort_axis0_loop(SORT_PARAMS(DECL_TENSOR2D)) {
  SORT_ROW(r, AXIS0_OFF, x)
  bitonic_step(&r, get_global_id(0), post_shift, pair_distance, stage, false);
}

__kernel void bitonicsort_axis1_init(SORT_PARAMS(AXIS1_DECL)) {
  SORT_ROW(r, AXIS1_OFF, y)
  bitonic_step(&r, get_global_id(1), post_shift, pair_distance, stage, true);
}

__kernel void bitonicsort_axis1_loop(SORT_PARAMS(AXIS1_DECL)) {
  SORT_ROW(r, AXIS1_OFF, y)
  bitonic_step(&r, get_global_id(1), post_shift, pair_distance, stage, false);
}
