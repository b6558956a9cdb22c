/*
 * Bitonic sort of whole rows on CPU devices: one work item per row runs the
 * network of bitonicsort_noloop.cl (the same comparators in the same order,
 * so the same results, NaN and ties included) on the row's keys held in
 * private float16 vectors. Exchanges at a distance of 16 or more pair whole
 * vectors; the shorter ones of a stage run inside each vector with shuffles.
 *
 * Build definitions: as bitonicsort_noloop.cl, without LOCAL_SIZE0; rows of
 * 16 to 2048 extended keys.
 */
// #include "common.h"
// #include "sort.h"

#define IN_REG DECL_VEC_TYPE(IN_DTYPE, 1)
#define LANE_IDS (int16)(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15)

/* Lanes whose pair (left a, right b) is out of order in blocks of direction
 * signo (all bits set: the second direction); NaN never compares. */
inline int16 rows_out_of_order(float16 a, float16 b, int16 signo) {
#ifdef DESCENDING
  return select(a < b, a > b, signo);
#else
  return select(a > b, a < b, signo);
#endif
}

/* The direction of the blocks holding the 16 keys from `first` on at stage s:
 * bit s + 1 of the key position. */
inline int16 rows_signo(int first, int stage) {
  return -(((first + LANE_IDS) >> (stage + 1)) & 1);
}

/* Exchange at distance D < 16 inside one vector of keys k and positions p. */
#define ROWS_IN_VECTOR(D, MASK, k, p, signo)                                   \
  {                                                                          \
    const float16 ok = shuffle(k, MASK);                                     \
    const uint16 op = shuffle(p, MASK);                                      \
    const int16 left = (LANE_IDS & (D)) == 0;                                \
    const int16 swap = select(rows_out_of_order(ok, k, signo),              \
                              rows_out_of_order(k, ok, signo), left);        \
    k = select(k, ok, swap);                                                 \
    p = select(p, op, swap);                                                 \
  }
#define ROWS_XOR1 (uint16)(1, 0, 3, 2, 5, 4, 7, 6, 9, 8, 11, 10, 13, 12, 15, 14)
#define ROWS_XOR2 (uint16)(2, 3, 0, 1, 6, 7, 4, 5, 10, 11, 8, 9, 14, 15, 12, 13)
#define ROWS_XOR4 (uint16)(4, 5, 6, 7, 0, 1, 2, 3, 12, 13, 14, 15, 8, 9, 10, 11)
#define ROWS_XOR8 (uint16)(8, 9, 10, 11, 12, 13, 14, 15, 0, 1, 2, 3, 4, 5, 6, 7)

/* The passes of one stage inside a block of 16 * `vectors` keys starting at
 * row position `base`: distances from 2^stage (at most half the block) down
 * to 1. */
inline void rows_stage(float *keys, uint *pos, int vectors, int stage, int base) {
  /* Distances of 16 or more: whole vectors. */
  for (int dv = min(1 << stage, 8 * vectors) >> 4; dv >= 1; dv >>= 1) {
    for (int v = 0; v < vectors; ++v) {
      if (v & dv) continue;
      const int16 signo = (int16)(-(((base + 16 * v) >> (stage + 1)) & 1));
      const float16 a = vload16(v, keys), b = vload16(v + dv, keys);
      const uint16 pa = vload16(v, pos), pb = vload16(v + dv, pos);
      const int16 swap = rows_out_of_order(a, b, signo);
      vstore16(select(a, b, swap), v, keys);
      vstore16(select(b, a, swap), v + dv, keys);
      vstore16(select(pa, pb, swap), v, pos);
      vstore16(select(pb, pa, swap), v + dv, pos);
    }
  }
  /* Distances 8, 4, 2, 1 (those up to 2^stage) in registers. */
  for (int v = 0; v < vectors; ++v) {
    float16 k = vload16(v, keys);
    uint16 p = vload16(v, pos);
    const int16 signo = rows_signo(base + 16 * v, stage);
    if (stage >= 3) ROWS_IN_VECTOR(8, ROWS_XOR8, k, p, signo)
    if (stage >= 2) ROWS_IN_VECTOR(4, ROWS_XOR4, k, p, signo)
    if (stage >= 1) ROWS_IN_VECTOR(2, ROWS_XOR2, k, p, signo)
    ROWS_IN_VECTOR(1, ROWS_XOR1, k, p, signo)
    vstore16(k, v, keys);
    vstore16(p, v, pos);
  }
}

/* Stages 0..num_stages of the block at row position `base`. */
inline void rows_network(float *keys, uint *pos, int vectors, int num_stages, int base) {
  for (int stage = 0; stage <= num_stages; ++stage) rows_stage(keys, pos, vectors, stage, base);
}

/* One row: `src`, `dst` and `idx` point at the row's first element and step
 * by their byte strides along the sorted axis. */
inline void rows_sort(__global const uchar *src, uint src_stride, __global uchar *dst,
                      uint dst_stride, __global uchar *idx, uint idx_stride, int num_stages,
                      int width) {
  float k[2048];
  uint p[2048];
  const int vectors = (2 << num_stages) / 16;
  for (int i = 0; i < width; ++i) {
    k[i] = CONVERT(float, 1, VLOAD(IN_DTYPE, 1, (__global IN_DTYPE *)(src + i * src_stride)));
  }
  for (int i = width; i < 16 * vectors; ++i) k[i] = FILLER_KEY;
  for (int v = 0; v < vectors; ++v) vstore16(convert_uint16(16 * v + LANE_IDS), v, p);
  rows_network(k, p, vectors, num_stages, 0);
#ifdef KEYS_ARE_VALUES
  /* Float values are their keys: no source reads, so in place is safe. */
  for (int i = 0; i < width; ++i) *(__global float *)(dst + i * dst_stride) = k[i];
#else
  /* Read every result before writing: the output may be the input. */
  IN_REG values[2048];
  for (int i = 0; i < width; ++i) {
    values[i] = (int)p[i] < width
                    ? VLOAD(IN_DTYPE, 1, (__global IN_DTYPE *)(src + p[i] * src_stride))
                    : CONVERT(IN_DTYPE, 1, k[i]);
  }
  for (int i = 0; i < width; ++i) {
    VSTORE(OUT_DTYPE, 1, CONVERT(OUT_DTYPE, 1, values[i]),
           (__global OUT_DTYPE *)(dst + i * dst_stride));
  }
#endif
#ifdef WITH_INDICES
  for (int i = 0; i < width; ++i) {
    *(__global INDICES_DTYPE *)(idx + i * idx_stride) = (INDICES_DTYPE)p[i];
  }
#endif
}

#ifdef WITH_INDICES
#define ROWS_INDICES_ARG2D DECL_TENSOR2D(indices),
#define ROWS_INDICES_AT2D(x, y)                                                \
  (TENSOR_BASE(indices) + (x) * indices_stride_x + (y) * indices_stride_y)
#else
#define ROWS_INDICES_ARG2D
#define ROWS_INDICES_AT2D(x, y) ((__global uchar *)0)
#define indices_stride_x 0
#define indices_stride_y 0
#endif

/* Rows along x of a 2-D (x, row) view: item = row. */
__kernel void bitonicsort_rows_axis0(DECL_TENSOR2D(src), ROWS_INDICES_ARG2D DECL_TENSOR2D(dst),
                                     int num_stages, int width) {
  const size_t row = get_global_id(0);
  rows_sort(TENSOR_BASE(src) + row * src_stride_y, src_stride_x,
            TENSOR_BASE(dst) + row * dst_stride_y, dst_stride_x, ROWS_INDICES_AT2D(0, row),
            indices_stride_x, num_stages, width);
}

#ifdef IS_3D
#ifdef WITH_INDICES
#define ROWS_INDICES_ARG3D DECL_TENSOR3D(indices),
#define ROWS_INDICES_COL (TENSOR_BASE(indices) + x * indices_stride_x + z * indices_stride_z)
#else
#define ROWS_INDICES_ARG3D
#define ROWS_INDICES_COL ((__global uchar *)0)
#endif
/* Columns along y of a 3-D (x, y, z) view: items (x, z). */
__kernel void bitonicsort_rows_axis1(DECL_TENSOR3D(src), ROWS_INDICES_ARG3D DECL_TENSOR3D(dst),
                                     int num_stages, int width) {
  const size_t x = get_global_id(0), z = get_global_id(1);
  rows_sort(TENSOR_BASE(src) + x * src_stride_x + z * src_stride_z, src_stride_y,
            TENSOR_BASE(dst) + x * dst_stride_x + z * dst_stride_z, dst_stride_y,
            ROWS_INDICES_COL, indices_stride_y, num_stages, width);
}
#else
/* Columns along y of a 2-D (x, y) view: item = x. */
__kernel void bitonicsort_rows_axis1(DECL_TENSOR2D(src), ROWS_INDICES_ARG2D DECL_TENSOR2D(dst),
                                     int num_stages, int width) {
  const size_t x = get_global_id(0);
  rows_sort(TENSOR_BASE(src) + x * src_stride_x, src_stride_y,
            TENSOR_BASE(dst) + x * dst_stride_x, dst_stride_y, ROWS_INDICES_AT2D(x, 0),
            indices_stride_y, num_stages, width);
}
#endif

/* ---- rows longer than 2048 keys (2-D (x, row) views) ----
 * Stages 0-10 of the network never cross a block of 2048 positions, and the
 * passes of a later stage at distances below 2048 stay inside one too: one
 * work item per block runs them in private memory on the value scratch (and
 * the index scratch), as bitonicsort.cl's launches of those passes would.
 * Kernel arguments as bitonicsort.cl's, after the views: width, the stage. */
#ifdef TEMP_DTYPE
#define TEMP_REG DECL_VEC_TYPE(TEMP_DTYPE, 1)
#define BLOCK_KEYS 2048

#ifdef WITH_INDICES
#define BLOCK_PARAMS                                                           \
  DECL_TENSOR2D(src), DECL_TENSOR2D(temp_indices), DECL_TENSOR2D(indices), DECL_TENSOR2D(temp), \
      DECL_TENSOR2D(dst), int width, int stage, int num_stages
#else
#define BLOCK_PARAMS                                                           \
  DECL_TENSOR2D(src), DECL_TENSOR2D(temp), DECL_TENSOR2D(dst), int width, int stage, int num_stages
#endif

/* Element i of row `row` of view `name`. */
#define BLOCK_AT(name, T, i, row)                                              \
  ((__global T *)(TENSOR_BASE(name) + (i) * name##_stride_x + (row) * name##_stride_y))

/* stage 0: stages 0-10 from the source; later: the passes of `stage` below
 * distance 2048 on the scratch. After the last stage the results go to the
 * outputs (below `width`), otherwise back to the scratch. */
__kernel void bitonicsort_blocks(BLOCK_PARAMS) {
  const int base = get_global_id(0) * BLOCK_KEYS, row = get_global_id(1);
  TEMP_REG values[BLOCK_KEYS];
#ifdef WITH_INDICES
  uint from[BLOCK_KEYS];
#endif
  float k[BLOCK_KEYS];
  uint p[BLOCK_KEYS];
  for (int i = 0; i < BLOCK_KEYS; ++i) {
    const int at = base + i;
    if (stage == 0) {
      /* The first stages read the source, filler keys past the row. */
      values[i] = at < width
                      ? CONVERT(TEMP_DTYPE, 1, VLOAD(IN_DTYPE, 1, BLOCK_AT(src, IN_DTYPE, at, row)))
                      : CONVERT(TEMP_DTYPE, 1, FILLER_KEY);
#ifdef WITH_INDICES
      from[i] = at;
#endif
    } else {
      values[i] = VLOAD(TEMP_DTYPE, 1, BLOCK_AT(temp, TEMP_DTYPE, at, row));
#ifdef WITH_INDICES
      from[i] = (uint)*BLOCK_AT(temp_indices, TEMP_INDICES_DTYPE, at, row);
#endif
    }
    k[i] = CONVERT(float, 1, values[i]);
  }
  for (int v = 0; v < BLOCK_KEYS / 16; ++v) vstore16(convert_uint16(16 * v + LANE_IDS), v, p);
  if (stage == 0) {
    rows_network(k, p, BLOCK_KEYS / 16, 10, base);
  } else {
    rows_stage(k, p, BLOCK_KEYS / 16, stage, base);
  }
  if (stage < num_stages) {
    for (int i = 0; i < BLOCK_KEYS; ++i) {
      VSTORE(TEMP_DTYPE, 1, values[p[i]], BLOCK_AT(temp, TEMP_DTYPE, base + i, row));
#ifdef WITH_INDICES
      *BLOCK_AT(temp_indices, TEMP_INDICES_DTYPE, base + i, row) = (TEMP_INDICES_DTYPE)from[p[i]];
#endif
    }
    return;
  }
  for (int i = 0; i < BLOCK_KEYS && base + i < width; ++i) {
    VSTORE(OUT_DTYPE, 1, CONVERT(OUT_DTYPE, 1, values[p[i]]),
           BLOCK_AT(dst, OUT_DTYPE, base + i, row));
#ifdef WITH_INDICES
    *BLOCK_AT(indices, INDICES_DTYPE, base + i, row) = (INDICES_DTYPE)from[p[i]];
#endif
  }
}
#endif
