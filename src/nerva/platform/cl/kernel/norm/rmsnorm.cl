/*
 * RMS normalisation over the innermost run of a 2-D view (rows on y).
 * Definitions: DTYPE, VEC_SIZE, VEC_SIZE_LEFTOVER, BLOCK_SIZE; USE_SCALE with
 * DTYPE_SCALE; USE_SHARE_MEMORY (the row's whole vectors in a local float
 * array, the first argument).
 *
 * One group per row: rstd = rsqrt(sumsq / n + eps), y = x * rstd * w. Item 0
 * writes the row's first whole vector; the loop rewrites the overlap.
 * rmsnorm_rows (ROW_ITEMS, host-CPU devices, groups of one item): an item
 * takes RMS_ROWS neighbouring rows without barriers, sums them in one pass
 * and maps them in a second, reading each weight vector once for all rows;
 * the leading elements go one at a time.
 */
// #include "common.h"
// #include "reduce.h"
// #include "norm.h"

#ifdef USE_SHARE_MEMORY
#define RMS_CACHE_PARAM __local float *cache,
#define RMS_KEEP(i, x) NORM_CACHE_STORE(cache, i, x)
#define RMS_X(i) NORM_CACHE_LOAD(cache, i)
#else
#define RMS_CACHE_PARAM
#define RMS_KEEP(i, x)
#define RMS_X(i) NORM_LOAD(DTYPE, p + VEC_SIZE_LEFTOVER + (i) * VEC_SIZE)
#endif
#ifdef USE_SCALE
#define RMS_SCALE_PARAM DECL_TENSOR2D(scale),
#define RMS_W(off) NORM_LOAD(DTYPE_SCALE, TENSOR2D_PTR(scale, DTYPE_SCALE, off, 0))
#else
#define RMS_SCALE_PARAM
#define RMS_W(off) ((NORM_VEC)(1.0f))
#endif

#ifdef ROW_ITEMS
#define RMS_ROWS 4
#define RMS_IN(N, T, t, c, r) CONVERT(float, N, VLOAD(T, N, TENSOR2D_PTR(t, T, c, r)))
#ifdef USE_SCALE
#define RMS_WN(N, c) RMS_IN(N, DTYPE_SCALE, scale, c, 0)
#else
#define RMS_WN(N, c) ((NERVA_VEC(float, N))(1.0f))
#endif
/* Adds x^2 of the N columns c of each of the K rows to a. */
#define RMS_SUMS(N, c, K, a)                                                   \
  _Pragma("unroll") for (int j = 0; j < (K); ++j) {                          \
    const NERVA_VEC(float, N) x = RMS_IN(N, DTYPE, src, c, row + j);         \
    a[j] += x * x;                                                           \
  }
#define RMS_MAP(N, c, K)                                                       \
  {                                                                          \
    const NERVA_VEC(float, N) w = RMS_WN(N, c);                              \
    _Pragma("unroll") for (int j = 0; j < (K); ++j) {                        \
      const NERVA_VEC(float, N) y = RMS_IN(N, DTYPE, src, c, row + j) * rstd_of[j] * w; \
      VSTORE(DTYPE, N, CONVERT(DTYPE, N, y), TENSOR2D_PTR(dst, DTYPE, c, row + j)); \
    }                                                                        \
  }
#define RMS_ROW_STEP(K)                                                        \
  {                                                                          \
    float ss[K], rstd_of[K];                                                 \
    NORM_VEC a[K];                                                           \
    _Pragma("unroll") for (int j = 0; j < (K); ++j) {                        \
      ss[j] = 0.0f;                                                          \
      a[j] = 0.0f;                                                           \
    }                                                                        \
    for (int c = 0; c < VEC_SIZE_LEFTOVER; ++c) RMS_SUMS(1, c, K, ss)        \
    for (int i = 0; i < mult_of_vector_size; ++i) {                          \
      RMS_SUMS(VEC_SIZE, VEC_SIZE_LEFTOVER + i * VEC_SIZE, K, a)             \
    }                                                                        \
    _Pragma("unroll") for (int j = 0; j < (K); ++j) {                        \
      rstd_of[j] = rsqrt((ss[j] + LANE_SUM(VEC_SIZE, a[j])) * inv_normalized_size + eps); \
    }                                                                        \
    for (int c = 0; c < VEC_SIZE_LEFTOVER; ++c) RMS_MAP(1, c, K)             \
    for (int i = 0; i < mult_of_vector_size; ++i) {                          \
      RMS_MAP(VEC_SIZE, VEC_SIZE_LEFTOVER + i * VEC_SIZE, K)                 \
    }                                                                        \
  }

__kernel __attribute__((reqd_work_group_size(1, 1, 1))) void rmsnorm_rows(
    DECL_TENSOR2D(src), RMS_SCALE_PARAM DECL_TENSOR2D(dst), int mult_of_vector_size,
    float inv_normalized_size, float eps, int rows) {
  const int first = get_global_id(1) * RMS_ROWS;
  if (first + RMS_ROWS <= rows) {
    const int row = first;
    RMS_ROW_STEP(RMS_ROWS)
  } else {
    for (int row = first; row < rows; ++row) RMS_ROW_STEP(1)
  }
}
#else
__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void rmsnorm(
    RMS_CACHE_PARAM DECL_TENSOR2D(src), RMS_SCALE_PARAM DECL_TENSOR2D(dst),
    int mult_of_vector_size, float inv_normalized_size, float eps) {
  const int lid = get_local_id(0);
  const int row = get_global_id(1);
  __global const DTYPE *p = TENSOR2D_PTR(src, DTYPE, 0, row);
  __global DTYPE *q = TENSOR2D_PTR(dst, DTYPE, 0, row);
  NORM_DECL_LOCALS

  NORM_VEC s = 0.0f, ss = 0.0f;
  NORM_ACC_RUN(DTYPE, p, mult_of_vector_size, lid, s, ss, RMS_KEEP)
  NORM_GROUP_SUM2(lid, s, ss, sum, sumsq)
  const float rstd = rsqrt(sumsq * inv_normalized_size + eps);
#if VEC_SIZE_LEFTOVER > 0
  if (lid == 0) NORM_STORE(DTYPE, NORM_LOAD(DTYPE, p) * rstd * RMS_W(0), q);
#endif
  FOR_SHARE(i, lid, mult_of_vector_size, BLOCK_SIZE) {
    const int off = VEC_SIZE_LEFTOVER + i * VEC_SIZE;
    NORM_STORE(DTYPE, RMS_X(i) * rstd * RMS_W(off), q + off);
  }
}
#endif
