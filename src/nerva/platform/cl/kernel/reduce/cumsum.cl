/*
 * Cumsum: inclusive running sum along one axis, accumulated in ACCUM_DTYPE.
 * Definitions: DTYPE (input), DTYPE_OUT, ACCUM_DTYPE, INIT (0), BLOCK_SIZE,
 * LOG_BLOCK_SIZE; ENABLE_2D_TENSOR (column form on a 2-D view), IN_PLACE
 * (the column form reads and writes one tensor).
 *
 * cumsum_x: one group per row walks it in tiles of 2 * BLOCK_SIZE elements.
 * Each item loads elements lid and lid + BLOCK_SIZE of the tile into local
 * memory (INIT past the end), item 0 adds the total of the previous tiles to
 * element 0, and an inclusive Sklansky scan runs: at step m (s = 2^m) item
 * lid adds element a - 1 to element a + lid % s, a = lid / s * 2s + s. The
 * tile is stored and its last element carries on as the running total.
 * cumsum: any other axis; one item per inner column walks the axis.
 */
// #include "common.h"
// #include "reduce.h"

#define CS_LOAD(p) CONVERT(ACCUM_DTYPE, 1, VLOAD(DTYPE, 1, p))
#define CS_STORE(v, p) VSTORE(DTYPE_OUT, 1, CONVERT(DTYPE_OUT, 1, v), p)
#define CS_TILE (2 * BLOCK_SIZE)
#define CS_VEC NERVA_VEC(ACCUM_DTYPE, 4)
#define CS_LOAD4(p) CONVERT(ACCUM_DTYPE, 4, VLOAD(DTYPE, 4, p))
#define CS_STORE4(v, p) VSTORE(DTYPE_OUT, 4, CONVERT(DTYPE_OUT, 4, v), p)

#ifdef NERVA_HOST_CPU_DEVICE
/* Where a group's items run one after the other on one thread, the tile scan
 * costs a barrier per step; instead each item scans a contiguous chunk of
 * the row: chunk totals, an exclusive scan of the BLOCK_SIZE totals by item
 * 0, then each chunk again from its offset, four elements at a time. */
__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void cumsum_x(
    DECL_TENSOR2D(src), DECL_TENSOR2D(dst), int axis_size) {
  const int lid = get_local_id(0);
  const int row = get_global_id(1);
  __global const DTYPE* p = TENSOR2D_PTR(src, DTYPE, 0, row);
  __global DTYPE_OUT* q = TENSOR2D_PTR(dst, DTYPE_OUT, 0, row);
  __local ACCUM_DTYPE chunk_total[BLOCK_SIZE];
  const int per = (axis_size + BLOCK_SIZE - 1) / BLOCK_SIZE;
  const int begin = min(axis_size, lid * per);
  const int end = min(axis_size, begin + per);
  CS_VEC acc = (CS_VEC)(INIT);
  int j = begin;
  for (; j + 4 <= end; j += 4) acc += CS_LOAD4(p + j);
  ACCUM_DTYPE total = acc.s0 + acc.s1 + acc.s2 + acc.s3;
  for (; j < end; ++j) total += CS_LOAD(p + j);
  chunk_total[lid] = total;
  barrier(CLK_LOCAL_MEM_FENCE);
  if (lid == 0) {
    ACCUM_DTYPE running = (ACCUM_DTYPE)(INIT);
    for (int k = 0; k < BLOCK_SIZE; ++k) {
      const ACCUM_DTYPE t = chunk_total[k];
      chunk_total[k] = running;
      running += t;
    }
  }
  barrier(CLK_LOCAL_MEM_FENCE);
  total = chunk_total[lid];
  /* Four at a time: the in-vector prefix, then the running total added. */
  for (j = begin; j + 4 <= end; j += 4) {
    CS_VEC v = CS_LOAD4(p + j);
    v.s1 += v.s0;
    v.s3 += v.s2;
    v.s23 += v.s1;
    v += total;
    total = v.s3;
    CS_STORE4(v, q + j);
  }
  for (; j < end; ++j) {
    total += CS_LOAD(p + j);
    CS_STORE(total, q + j);
  }
}
#else
__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void cumsum_x(
    DECL_TENSOR2D(src), DECL_TENSOR2D(dst), int axis_size) {
  const int lid = get_local_id(0);
  const int row = get_global_id(1);
  __global const DTYPE* p = TENSOR2D_PTR(src, DTYPE, 0, row);
  __global DTYPE_OUT* q = TENSOR2D_PTR(dst, DTYPE_OUT, 0, row);
  __local ACCUM_DTYPE tile[CS_TILE];
  ACCUM_DTYPE total = (ACCUM_DTYPE)(INIT);
  for (int start = 0; start < axis_size; start += CS_TILE) {
    const int i0 = start + lid;
    const int i1 = start + lid + BLOCK_SIZE;
    tile[lid] = i0 < axis_size ? CS_LOAD(p + i0) : (ACCUM_DTYPE)(INIT);
    tile[lid + BLOCK_SIZE] = i1 < axis_size ? CS_LOAD(p + i1) : (ACCUM_DTYPE)(INIT);
    if (lid == 0) tile[0] += total;
    barrier(CLK_LOCAL_MEM_FENCE);
    for (int m = 0; m <= LOG_BLOCK_SIZE; ++m) {
      const int s = 1 << m;
      const int a = lid / s * 2 * s + s;
      tile[a + lid % s] += tile[a - 1];
      barrier(CLK_LOCAL_MEM_FENCE);
    }
    if (i0 < axis_size) CS_STORE(tile[lid], q + i0);
    if (i1 < axis_size) CS_STORE(tile[lid + BLOCK_SIZE], q + i1);
    total = tile[CS_TILE - 1];
    barrier(CLK_LOCAL_MEM_FENCE);
  }
}
#endif

#ifdef ENABLE_2D_TENSOR
#define CS_DECL DECL_TENSOR2D
#define CS_AT(t, T, r) TENSOR2D_PTR(t, T, x, r)
#else
#define CS_DECL DECL_TENSOR3D
#define CS_AT(t, T, r) TENSOR3D_PTR(t, T, x, r, get_global_id(1))
#endif
#ifdef IN_PLACE
#define CS_DST src
#define CS_DST_PARAM
#else
#define CS_DST dst
#define CS_DST_PARAM CS_DECL(dst),
#endif

/* Item (x[, z]) scans the axis at inner column x of outer slice z. */
__kernel void cumsum(CS_DECL(src), CS_DST_PARAM int axis_size) {
  const int x = get_global_id(0);
  ACCUM_DTYPE total = (ACCUM_DTYPE)(INIT);
  for (int r = 0; r < axis_size; ++r) {
    total += CS_LOAD(CS_AT(src, DTYPE, r));
    CS_STORE(total, CS_AT(CS_DST, DTYPE_OUT, r));
  }
}
