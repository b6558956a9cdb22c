/*
 * Layer normalisation over the innermost run of a 2-D view (rows on y).
 * Definitions: DTYPE (source and destination), VEC_SIZE, VEC_SIZE_LEFTOVER,
 * BLOCK_SIZE, EPS; USE_SCALE with DTYPE_SCALE, USE_BIAS with DTYPE_BIAS;
 * SAVE_MEAN with MEAN_DTYPE, SAVE_RSTD with RSTD_DTYPE; USE_SHARE_MEMORY
 * (the row's whole vectors are kept in a local float array, the first
 * argument, so the row is read from global memory once).
 *
 * One group per row: sum and sum of squares in one pass, mean = sum / n,
 * rstd = rsqrt(sumsq / n - mean^2 + EPS), then y = x * s + (b - mean * s)
 * with s = rstd * w. Item 0 writes the row's first whole vector (covering the
 * leading elements); the loop rewrites the overlap with the same values.
 *
 * layernorm_rows (ROW_ITEMS, host-CPU devices, groups of one item): an item
 * takes LN_ROWS neighbouring rows without barriers: one pass sums all of
 * them, a second maps them, reading each weight and bias vector once for all
 * the rows (which the first pass left in the cache). The leading elements
 * are mapped one at a time.
 */
// #include "common.h"
// #include "reduce.h"
// #include "norm.h"

#ifdef USE_SHARE_MEMORY
#define LN_CACHE_PARAM __local float *cache,
#define LN_KEEP(i, x) NORM_CACHE_STORE(cache, i, x)
#define LN_X(i) NORM_CACHE_LOAD(cache, i)
#else
#define LN_CACHE_PARAM
#define LN_KEEP(i, x)
#define LN_X(i) NORM_LOAD(DTYPE, p + VEC_SIZE_LEFTOVER + (i)*VEC_SIZE)
#endif

#ifdef USE_SCALE
#define LN_SCALE_PARAM DECL_TENSOR2D(scale),
#define LN_W(off) NORM_LOAD(DTYPE_SCALE, TENSOR2D_PTR(scale, DTYPE_SCALE, off, 0))
/* The bias run is advanced by the scale's element stride. */
#define LN_BIAS_STRIDE scale_stride_x
#else
#define LN_SCALE_PARAM
#define LN_W(off) ((NORM_VEC)(1.0f))
#define LN_BIAS_STRIDE bias_stride_x
#endif
#ifdef USE_BIAS
#define LN_BIAS_PARAM DECL_TENSOR2D(bias),
/* Bias of whole vector i (after the shift by the leading elements) and of
 * the row's first vector. */
#define LN_B(i)                                                                             \
  NORM_LOAD(DTYPE_BIAS,                                                                     \
            (__global DTYPE_BIAS*)(TENSOR_BASE(bias) + VEC_SIZE_LEFTOVER * LN_BIAS_STRIDE + \
                                   (i)*VEC_SIZE * bias_stride_x))
#define LN_B_FIRST() NORM_LOAD(DTYPE_BIAS, (__global DTYPE_BIAS*)TENSOR_BASE(bias))
#else
#define LN_BIAS_PARAM
#define LN_B(i) ((NORM_VEC)(0.0f))
#define LN_B_FIRST() ((NORM_VEC)(0.0f))
#endif
#ifdef SAVE_MEAN
#define LN_MEAN_PARAM DECL_TENSOR1D(mean),
#else
#define LN_MEAN_PARAM
#endif
#ifdef SAVE_RSTD
#define LN_RSTD_PARAM DECL_TENSOR1D(rstd),
#else
#define LN_RSTD_PARAM
#endif

/* y for the vector x with scale w and bias b. */
#define LN_OUT(x, w, b) ((x) * ((w)*row_rstd) + ((b)-row_mean * ((w)*row_rstd)))

#ifdef ROW_ITEMS
#define LN_ROWS 4
#define LN_IN(N, T, t, c, r) CONVERT(float, N, VLOAD(T, N, TENSOR2D_PTR(t, T, c, r)))
#ifdef USE_SCALE
#define LN_WN(N, c) LN_IN(N, DTYPE_SCALE, scale, c, 0)
#else
#define LN_WN(N, c) ((NERVA_VEC(float, N))(1.0f))
#endif
#ifdef USE_BIAS
#define LN_BN(N, c) LN_IN(N, DTYPE_BIAS, bias, c, 0)
#else
#define LN_BN(N, c) ((NERVA_VEC(float, N))(0.0f))
#endif
#ifdef SAVE_MEAN
#define LN_SAVE_MEAN(r, v) NORM_STORE1(MEAN_DTYPE, v, TENSOR1D_PTR(mean, MEAN_DTYPE, r));
#else
#define LN_SAVE_MEAN(r, v)
#endif
#ifdef SAVE_RSTD
#define LN_SAVE_RSTD(r, v) NORM_STORE1(RSTD_DTYPE, v, TENSOR1D_PTR(rstd, RSTD_DTYPE, r));
#else
#define LN_SAVE_RSTD(r, v)
#endif
/* Adds x and x^2 of the N columns c of each of the K rows to a and b. */
#define LN_SUMS(N, c, K, a, b)                                                 \
  _Pragma("unroll") for (int j = 0; j < (K); ++j) {                          \
    const NERVA_VEC(float, N) x = LN_IN(N, DTYPE, src, c, row + j);          \
    a[j] += x;                                                               \
    b[j] += x * x;                                                           \
  }
/* Maps the N columns c of each of the K rows. */
#define LN_MAP(N, c, K)                                                        \
  {                                                                          \
    const NERVA_VEC(float, N) w = LN_WN(N, c), bb = LN_BN(N, c);             \
    _Pragma("unroll") for (int j = 0; j < (K); ++j) {                        \
      const NERVA_VEC(float, N) sc = w * rstd_of[j];                         \
      const NERVA_VEC(float, N) y =                                          \
          LN_IN(N, DTYPE, src, c, row + j) * sc + (bb - mean_of[j] * sc);    \
      VSTORE(DTYPE, N, CONVERT(DTYPE, N, y), TENSOR2D_PTR(dst, DTYPE, c, row + j)); \
    }                                                                        \
  }
#define LN_ROW_STEP(K)                                                         \
  {                                                                          \
    float s[K], ss[K], mean_of[K], rstd_of[K];                               \
    NORM_VEC a[K], b[K];                                                     \
    _Pragma("unroll") for (int j = 0; j < (K); ++j) {                        \
      s[j] = ss[j] = 0.0f;                                                   \
      a[j] = b[j] = 0.0f;                                                    \
    }                                                                        \
    for (int c = 0; c < VEC_SIZE_LEFTOVER; ++c) LN_SUMS(1, c, K, s, ss)      \
    for (int i = 0; i < mult_of_vector_size; ++i) {                          \
      LN_SUMS(VEC_SIZE, VEC_SIZE_LEFTOVER + i * VEC_SIZE, K, a, b)           \
    }                                                                        \
    _Pragma("unroll") for (int j = 0; j < (K); ++j) {                        \
      NORM_MEAN_RSTD(s[j] + LANE_SUM(VEC_SIZE, a[j]), ss[j] + LANE_SUM(VEC_SIZE, b[j]), \
                     inv_normalized_size, (float)(EPS), m, r)                \
      mean_of[j] = m;                                                        \
      rstd_of[j] = r;                                                        \
      LN_SAVE_MEAN(row + j, m)                                               \
      LN_SAVE_RSTD(row + j, r)                                               \
    }                                                                        \
    for (int c = 0; c < VEC_SIZE_LEFTOVER; ++c) LN_MAP(1, c, K)              \
    for (int i = 0; i < mult_of_vector_size; ++i) {                          \
      LN_MAP(VEC_SIZE, VEC_SIZE_LEFTOVER + i * VEC_SIZE, K)                  \
    }                                                                        \
  }

__kernel __attribute__((reqd_work_group_size(1, 1, 1))) void layernorm_rows(
    DECL_TENSOR2D(src), LN_SCALE_PARAM LN_BIAS_PARAM LN_MEAN_PARAM LN_RSTD_PARAM DECL_TENSOR2D(dst),
    int mult_of_vector_size, float inv_normalized_size, int rows) {
  const int first = get_global_id(1) * LN_ROWS;
  if (first + LN_ROWS <= rows) {
    const int row = first;
    LN_ROW_STEP(LN_ROWS)
  } else {
    for (int row = first; row < rows; ++row) LN_ROW_STEP(1)
  }
}
#else
__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void layernorm(
    LN_CACHE_PARAM DECL_TENSOR2D(src),
    LN_SCALE_PARAM LN_BIAS_PARAM LN_MEAN_PARAM LN_RSTD_PARAM DECL_TENSOR2D(dst),
    int mult_of_vector_size, float inv_normalized_size) {
  const int lid = get_local_id(0);
  const int row = get_global_id(1);
  __global const DTYPE* p = TENSOR2D_PTR(src, DTYPE, 0, row);
  __global DTYPE* q = TENSOR2D_PTR(dst, DTYPE, 0, row);
  NORM_DECL_LOCALS

  NORM_VEC s = 0.0f, ss = 0.0f;
  NORM_ACC_RUN(DTYPE, p, mult_of_vector_size, lid, s, ss, LN_KEEP)
  NORM_GROUP_SUM2(lid, s, ss, sum, sumsq)
  NORM_MEAN_RSTD(sum, sumsq, inv_normalized_size, (float)(EPS), row_mean, row_rstd)
  if (lid == 0) {
#ifdef SAVE_MEAN
    NORM_STORE1(MEAN_DTYPE, row_mean, TENSOR1D_PTR(mean, MEAN_DTYPE, row));
#endif
#ifdef SAVE_RSTD
    NORM_STORE1(RSTD_DTYPE, row_rstd, TENSOR1D_PTR(rstd, RSTD_DTYPE, row));
#endif
#if VEC_SIZE_LEFTOVER > 0
    NORM_STORE(DTYPE, LN_OUT(NORM_LOAD(DTYPE, p), LN_W(0), LN_B_FIRST()), q);
#endif
  }
  FOR_SHARE(i, lid, mult_of_vector_size, BLOCK_SIZE) {
    const int off = VEC_SIZE_LEFTOVER + i * VEC_SIZE;
    NORM_STORE(DTYPE, LN_OUT(LN_X(i), LN_W(off), LN_B(i)), q + off);
  }
}
#endif
