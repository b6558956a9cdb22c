/*
 * Gradients of layer normalisation from the saved mean and rstd, on a 2-D
 * view (rows on y). Definitions: DTYPE (grad, input and grad input),
 * MEAN_DTYPE, RSTD_DTYPE, VEC_SIZE, VEC_SIZE_LEFTOVER, BLOCK_SIZE.
 *
 * layernorm_backward_grad_x: one group per row. With x^ = (x - mean) * rstd
 * and g^ = grad * w (USE_WEIGHT, DTYPE_WEIGHT), the group sums S1 = sum g^
 * and S2 = sum g^ x^ give dx = rstd / n * (n g^ - S1 - x^ S2), written
 * through the factor rstd * inv_normalized_size. Local caches (first
 * arguments, in this order) keep the row between the two passes:
 * USE_INPUT_SHARE_MEMORY the input, USE_GRAD_SHARE_MEMORY g^.
 *
 * layernorm_backward_grad_wb: one item per vector of columns (mult_of_vector_size_x
 * items, the first vector shifted as in VEC_OFFSET) walks the rows:
 * dw = sum grad * x^ (SAVE_WEIGHT, DTYPE_SCALE) and db = sum grad (SAVE_BIAS,
 * DTYPE_BIAS). Groups meet at a barrier every LNB_ROWS rows, so on devices
 * that run a group's items one after the other the rows stay cached.
 * layernorm_backward_grad_wb_split (SPLIT_ROWS) folds chunks of rows into
 * float partial sums instead, as does layernorm_backward_grad_wb_rows
 * (ROW_CHUNKS) with whole rows per item.
 */
// #include "common.h"
// #include "reduce.h"
// #include "norm.h"

#ifdef USE_INPUT_SHARE_MEMORY
#define LNB_X_CACHE __local float *x_cache,
#define LNB_KEEP_X(i, v) NORM_CACHE_STORE(x_cache, i, v)
#define LNB_X(i) NORM_CACHE_LOAD(x_cache, i)
#else
#define LNB_X_CACHE
#define LNB_KEEP_X(i, v)
#define LNB_X(i) NORM_LOAD(DTYPE, p + VEC_SIZE_LEFTOVER + (i)*VEC_SIZE)
#endif
#ifdef USE_GRAD_SHARE_MEMORY
#define LNB_G_CACHE __local float *g_cache,
#define LNB_KEEP_G(i, v) NORM_CACHE_STORE(g_cache, i, v)
#else
#define LNB_G_CACHE
#define LNB_KEEP_G(i, v)
#endif
#define LNB_W(i) LNB_W_AT(VEC_SIZE_LEFTOVER + (i)*VEC_SIZE)
#ifdef USE_WEIGHT
#define LNB_WEIGHT_PARAM DECL_TENSOR2D(weight),
#define LNB_W_AT(off) NORM_LOAD(DTYPE_WEIGHT, TENSOR2D_PTR(weight, DTYPE_WEIGHT, off, 0))
#else
#define LNB_WEIGHT_PARAM
#define LNB_W_AT(off) ((NORM_VEC)(1.0f))
#endif
#ifdef USE_GRAD_SHARE_MEMORY
#define LNB_GH(i) NORM_CACHE_LOAD(g_cache, i)
#else
#define LNB_GH(i) (NORM_LOAD(DTYPE, pg + VEC_SIZE_LEFTOVER + (i)*VEC_SIZE) * LNB_W(i))
#endif

#ifndef GRAD_WEIGHT_BIAS
__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void layernorm_backward_grad_x(
    LNB_X_CACHE LNB_G_CACHE DECL_TENSOR2D(grad), DECL_TENSOR2D(src), DECL_TENSOR1D(mean),
    DECL_TENSOR1D(rstd), LNB_WEIGHT_PARAM DECL_TENSOR2D(dst), int mult_of_vector_size,
    float inv_normalized_size) {
  const int lid = get_local_id(0);
  const int row = get_global_id(1);
  __global const DTYPE* p = TENSOR2D_PTR(src, DTYPE, 0, row);
  __global const DTYPE* pg = TENSOR2D_PTR(grad, DTYPE, 0, row);
  __global DTYPE* q = TENSOR2D_PTR(dst, DTYPE, 0, row);
  const float mu = NORM_LOAD1(MEAN_DTYPE, TENSOR1D_PTR(mean, MEAN_DTYPE, row));
  const float rs = NORM_LOAD1(RSTD_DTYPE, TENSOR1D_PTR(rstd, RSTD_DTYPE, row));
  NORM_DECL_LOCALS

  NORM_VEC s1 = 0.0f, s2 = 0.0f;
  if (VEC_SIZE_LEFTOVER > 0 && lid == 0) {
    for (int k = 0; k < VEC_SIZE_LEFTOVER; ++k) {
      const float gh = NORM_LOAD1(DTYPE, pg + k) * NORM_FIRST_LANE(LNB_W_AT(k));
      NORM_FIRST_LANE(s1) += gh;
      NORM_FIRST_LANE(s2) += gh * (NORM_LOAD1(DTYPE, p + k) - mu) * rs;
    }
  }
  FOR_SHARE(i, lid, mult_of_vector_size, BLOCK_SIZE) {
    const int off = VEC_SIZE_LEFTOVER + i * VEC_SIZE;
    const NORM_VEC x = NORM_LOAD(DTYPE, p + off);
    const NORM_VEC w = LNB_W_AT(off);
    const NORM_VEC gh = NORM_LOAD(DTYPE, pg + off) * w;
    LNB_KEEP_X(i, x);
    LNB_KEEP_G(i, gh);
    s1 += gh;
    s2 += gh * ((x - mu) * rs);
  }
  NORM_GROUP_SUM2(lid, s1, s2, sum_g, sum_gx)
  const float n = (float)(mult_of_vector_size * VEC_SIZE + VEC_SIZE_LEFTOVER);
  const float f = rs * inv_normalized_size;
#define LNB_DX(x, gh) (f * ((gh)*n - sum_g - ((x)-mu) * rs * sum_gx))
#if VEC_SIZE_LEFTOVER > 0
  if (lid == 0) {
    NORM_STORE(DTYPE, LNB_DX(NORM_LOAD(DTYPE, p), NORM_LOAD(DTYPE, pg) * LNB_W_AT(0)), q);
  }
#endif
  FOR_SHARE(i, lid, mult_of_vector_size, BLOCK_SIZE) {
    NORM_STORE(DTYPE, LNB_DX(LNB_X(i), LNB_GH(i)), q + VEC_SIZE_LEFTOVER + i * VEC_SIZE);
  }
}

#else /* GRAD_WEIGHT_BIAS */
#define LNB_ROWS 32
#if VEC_SIZE_LEFTOVER == 0
#define LNB_COLUMN(item) ((item)*VEC_SIZE)
#else
#define LNB_COLUMN(item) VEC_OFFSET(item, VEC_SIZE, VEC_SIZE_LEFTOVER)
#endif
#ifdef SAVE_WEIGHT
#define LNB_DW_PARAM DECL_TENSOR1D(grad_weight),
#else
#define LNB_DW_PARAM
#endif
#ifdef SAVE_BIAS
#define LNB_DB_PARAM DECL_TENSOR1D(grad_bias),
#else
#define LNB_DB_PARAM
#endif

#ifdef SAVE_WEIGHT
#define LNB_DW_PART __global float *dw_part,
#else
#define LNB_DW_PART
#endif
#ifdef SAVE_BIAS
#define LNB_DB_PART __global float *db_part,
#else
#define LNB_DB_PART
#endif

#if defined(SPLIT_ROWS)
/* Devices that are not the host CPU: item (column vector, s) folds the rows
 * [s * chunk_rows, (s + 1) * chunk_rows) and stores float partial sums at
 * dw_part / db_part [s][col]; a second pass adds the chunks up. */
__kernel void layernorm_backward_grad_wb_split(DECL_TENSOR2D(grad), DECL_TENSOR2D(src),
                                               DECL_TENSOR1D(mean), DECL_TENSOR1D(rstd),
                                               LNB_DW_PART LNB_DB_PART int rows, int chunk_rows,
                                               int length, int mult_of_vector_size_x) {
  const int item = get_global_id(0);
  const int col = LNB_COLUMN(min(item, mult_of_vector_size_x - 1));
  const int r0 = get_global_id(1) * chunk_rows;
  const int r1 = min(rows, r0 + chunk_rows);
  NORM_VEC dw = 0.0f, db = 0.0f;
  for (int r = r0; r < r1; ++r) {
    const float mu = NORM_LOAD1(MEAN_DTYPE, TENSOR1D_PTR(mean, MEAN_DTYPE, r));
    const float rs = NORM_LOAD1(RSTD_DTYPE, TENSOR1D_PTR(rstd, RSTD_DTYPE, r));
    const NORM_VEC g = NORM_LOAD(DTYPE, TENSOR2D_PTR(grad, DTYPE, col, r));
    dw += g * ((NORM_LOAD(DTYPE, TENSOR2D_PTR(src, DTYPE, col, r)) - mu) * rs);
    db += g;
  }
  if (item >= mult_of_vector_size_x) return;
  const long at = (long)get_global_id(1) * length + col;
#ifdef SAVE_WEIGHT
  NERVA_STOREN(VEC_SIZE, dw, dw_part + at);
#endif
#ifdef SAVE_BIAS
  NERVA_STOREN(VEC_SIZE, db, db_part + at);
#endif
}

#elif defined(ROW_CHUNKS)
/* Host-CPU devices: item s streams the rows [s * chunk_rows, (s + 1) *
 * chunk_rows) into the float partial rows dw_part / db_part [s][length],
 * LNB_STEP rows per read-modify-write of the partial row (which stays in the
 * processor's cache); a second pass adds the partial rows up. The first step
 * of a chunk starts from zero. With WITH_GRAD_INPUT (USE_WEIGHT, DTYPE_WEIGHT)
 * the same item writes the input gradient of its rows (SAVE_WEIGHT and
 * SAVE_BIAS may then both be absent): a step first
 * sums g^ and g^ x^ over each of its rows, then one pass over the columns
 * writes dx and folds the rows, which the first pass left in the cache. */
#define LNB_STEP 4
#define LNB_IN(N, t, c, j) CONVERT(float, N, VLOAD(DTYPE, N, TENSOR2D_PTR(t, DTYPE, c, r + (j))))
#define LNB_PART_IN(N, part, c) (first ? (NERVA_VEC(float, N))(0.0f) : NERVA_LOADN(N, (part) + (c)))
#ifdef SAVE_WEIGHT
#define LNB_DW_DECL(N, c) NERVA_VEC(float, N) dw = LNB_PART_IN(N, pw, c);
#define LNB_DW_ADD(g, xh) dw += (g) * (xh);
#define LNB_DW_OUT(N, c) NERVA_STOREN(N, dw, pw + (c));
#else
#define LNB_DW_DECL(N, c)
#define LNB_DW_ADD(g, xh)
#define LNB_DW_OUT(N, c)
#endif
#ifdef SAVE_BIAS
#define LNB_DB_DECL(N, c) NERVA_VEC(float, N) db = LNB_PART_IN(N, pb, c);
#define LNB_DB_ADD(g) db += (g);
#define LNB_DB_OUT(N, c) NERVA_STOREN(N, db, pb + (c));
#else
#define LNB_DB_DECL(N, c)
#define LNB_DB_ADD(g)
#define LNB_DB_OUT(N, c)
#endif
#ifdef WITH_GRAD_INPUT
#define LNB_DST_PARAM DECL_TENSOR2D(dst),
#define LNB_EXTRA_PARAM , float inv_normalized_size
#ifdef USE_WEIGHT
#define LNB_WN(N, c) CONVERT(float, N, VLOAD(DTYPE_WEIGHT, N, TENSOR2D_PTR(weight, DTYPE_WEIGHT, c, 0)))
#else
#define LNB_WN(N, c) ((NERVA_VEC(float, N))(1.0f))
#endif
/* dx of row r + j at the N columns c from g, x^ and the weight w. */
#define LNB_DX_OUT(N, c, j, g, xh, w)                                          \
  VSTORE(DTYPE, N,                                                           \
         CONVERT(DTYPE, N, f[j] * ((g) * (w)*n - sg[j] - (xh)*sgx[j])),       \
         TENSOR2D_PTR(dst, DTYPE, c, r + (j)));
/* Adds g^ and g^ x^ of the N columns c of each row to the accumulators a, b. */
#define LNB_ROW_SUMS(N, c, K, a, b)                                            \
  {                                                                          \
    const NERVA_VEC(float, N) w = LNB_WN(N, c);                              \
    _Pragma("unroll") for (int j = 0; j < (K); ++j) {                        \
      const NERVA_VEC(float, N) gh = LNB_IN(N, grad, c, j) * w;              \
      a[j] += gh;                                                            \
      b[j] += gh * ((LNB_IN(N, src, c, j) - mu[j]) * rs[j]);                 \
    }                                                                        \
  }
#define LNB_DX_SUMS(K)                                                         \
  float sg[K], sgx[K], f[K];                                                 \
  {                                                                          \
    NORM_VEC a[K], b[K];                                                     \
    _Pragma("unroll") for (int j = 0; j < (K); ++j) {                        \
      sg[j] = sgx[j] = 0.0f;                                                 \
      a[j] = b[j] = 0.0f;                                                    \
      f[j] = rs[j] * inv_normalized_size;                                    \
    }                                                                        \
    for (int c = 0; c < VEC_SIZE_LEFTOVER; ++c) LNB_ROW_SUMS(1, c, K, sg, sgx) \
    for (int i = 0; i < mult_of_vector_size; ++i) {                          \
      LNB_ROW_SUMS(VEC_SIZE, VEC_SIZE_LEFTOVER + i * VEC_SIZE, K, a, b)      \
    }                                                                        \
    _Pragma("unroll") for (int j = 0; j < (K); ++j) {                        \
      sg[j] += LANE_SUM(VEC_SIZE, a[j]);                                     \
      sgx[j] += LANE_SUM(VEC_SIZE, b[j]);                                    \
    }                                                                        \
  }
#define LNB_W_DECL(N, c) const NERVA_VEC(float, N) w = LNB_WN(N, c);
#define LNB_DX(N, c, j, g, xh) LNB_DX_OUT(N, c, j, g, xh, w)
#else
#define LNB_DST_PARAM
#define LNB_EXTRA_PARAM
#define LNB_DX_SUMS(K)
#define LNB_W_DECL(N, c)
#define LNB_DX(N, c, j, g, xh)
#endif
/* Folds rows r .. r + K - 1 of the N columns at c into the partial rows
 * (and writes their dx). */
#define LNB_FOLD(N, c, K)                                                      \
  {                                                                          \
    LNB_DW_DECL(N, c)                                                        \
    LNB_DB_DECL(N, c)                                                        \
    LNB_W_DECL(N, c)                                                         \
    _Pragma("unroll") for (int j = 0; j < (K); ++j) {                        \
      const NERVA_VEC(float, N) g = LNB_IN(N, grad, c, j);                   \
      const NERVA_VEC(float, N) xh = (LNB_IN(N, src, c, j) - mu[j]) * rs[j]; \
      LNB_DX(N, c, j, g, xh)                                                 \
      LNB_DW_ADD(g, xh)                                                      \
      LNB_DB_ADD(g)                                                          \
    }                                                                        \
    LNB_DW_OUT(N, c)                                                         \
    LNB_DB_OUT(N, c)                                                         \
  }
/* One step over K rows: the leading elements, then the whole vectors. */
#define LNB_FOLD_ROWS(K)                                                       \
  {                                                                          \
    float mu[K], rs[K];                                                      \
    _Pragma("unroll") for (int j = 0; j < (K); ++j) {                        \
      mu[j] = NORM_LOAD1(MEAN_DTYPE, TENSOR1D_PTR(mean, MEAN_DTYPE, r + j)); \
      rs[j] = NORM_LOAD1(RSTD_DTYPE, TENSOR1D_PTR(rstd, RSTD_DTYPE, r + j)); \
    }                                                                        \
    LNB_DX_SUMS(K)                                                           \
    const bool first = r == r0;                                              \
    for (int c = 0; c < VEC_SIZE_LEFTOVER; ++c) LNB_FOLD(1, c, K)            \
    for (int i = 0; i < mult_of_vector_size; ++i) {                          \
      LNB_FOLD(VEC_SIZE, VEC_SIZE_LEFTOVER + i * VEC_SIZE, K)                \
    }                                                                        \
  }
__kernel void layernorm_backward_grad_wb_rows(DECL_TENSOR2D(grad), DECL_TENSOR2D(src),
                                              DECL_TENSOR1D(mean), DECL_TENSOR1D(rstd),
                                              LNB_WEIGHT_PARAM LNB_DST_PARAM LNB_DW_PART
                                                  LNB_DB_PART int rows,
                                              int chunk_rows, int length,
                                              int mult_of_vector_size LNB_EXTRA_PARAM) {
  const int s = get_global_id(0);
  const int r0 = s * chunk_rows;
  const int r1 = min(rows, r0 + chunk_rows);
#ifdef WITH_GRAD_INPUT
  const float n = (float)length;
#endif
#ifdef SAVE_WEIGHT
  __global float *pw = dw_part + (long)s * length;
#endif
#ifdef SAVE_BIAS
  __global float *pb = db_part + (long)s * length;
#endif
  int r = r0;
  for (; r + LNB_STEP <= r1; r += LNB_STEP) LNB_FOLD_ROWS(LNB_STEP)
  for (; r < r1; ++r) LNB_FOLD_ROWS(1)
}

#else
__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void layernorm_backward_grad_wb(
    DECL_TENSOR2D(grad), DECL_TENSOR2D(src), DECL_TENSOR1D(mean), DECL_TENSOR1D(rstd),
    LNB_DW_PARAM LNB_DB_PARAM int rows, int mult_of_vector_size_x) {
  const int item = get_global_id(0);
  const int col = LNB_COLUMN(min(item, mult_of_vector_size_x - 1));
  NORM_VEC dw = 0.0f, db = 0.0f;
  for (int r0 = 0; r0 < rows; r0 += LNB_ROWS) {
    const int r1 = min(rows, r0 + LNB_ROWS);
    for (int r = r0; r < r1; ++r) {
      const float mu = NORM_LOAD1(MEAN_DTYPE, TENSOR1D_PTR(mean, MEAN_DTYPE, r));
      const float rs = NORM_LOAD1(RSTD_DTYPE, TENSOR1D_PTR(rstd, RSTD_DTYPE, r));
      const NORM_VEC g = NORM_LOAD(DTYPE, TENSOR2D_PTR(grad, DTYPE, col, r));
      dw += g * ((NORM_LOAD(DTYPE, TENSOR2D_PTR(src, DTYPE, col, r)) - mu) * rs);
      db += g;
    }
    barrier(CLK_GLOBAL_MEM_FENCE);
  }
  if (item >= mult_of_vector_size_x) return;
#ifdef SAVE_WEIGHT
  NORM_STORE(DTYPE_SCALE, dw, TENSOR1D_PTR(grad_weight, DTYPE_SCALE, col));
#endif
#ifdef SAVE_BIAS
  NORM_STORE(DTYPE_BIAS, db, TENSOR1D_PTR(grad_bias, DTYPE_BIAS, col));
#endif
}
#endif
#endif
