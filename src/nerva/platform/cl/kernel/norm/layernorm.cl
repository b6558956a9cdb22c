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
