/*
 * Group normalisation on a 3-D view: batch on z, channels on y, the spatial
 * run on x. Definitions: DTYPE, VEC_SIZE, VEC_SIZE_LEFTOVER (of the spatial
 * run), BLOCK_SIZE; USE_SCALE with DTYPE_SCALE, USE_BIAS with DTYPE_BIAS
 * (per channel); SAVE_MEAN with MEAN_DTYPE, SAVE_RSTD with RSTD_DTYPE (batch
 * x group); USE_SHARE_MEMORY (the group's whole vectors in a local float
 * array, the first argument).
 *
 * One group of items per (group, batch) (global ids 1 and 2) folds the
 * spatial runs of the group's channel_per_group channels: mean, rstd =
 * rsqrt(sumsq / n - mean^2 + eps); channel c is written as
 * y = x * s + (b[c] - mean * s) with s = rstd * w[c].
 */
// #include "common.h"
// #include "reduce.h"
// #include "norm.h"

#ifdef USE_SHARE_MEMORY
#define GN_CACHE_PARAM __local float *cache,
#define GN_KEEP(i, x) NORM_CACHE_STORE(cache, base + (i), x)
#define GN_X(i) NORM_CACHE_LOAD(cache, base + (i))
#else
#define GN_CACHE_PARAM
#define GN_KEEP(i, x)
#define GN_X(i) NORM_LOAD(DTYPE, p + VEC_SIZE_LEFTOVER + (i) * VEC_SIZE)
#endif
#ifdef USE_SCALE
#define GN_SCALE_PARAM DECL_TENSOR1D(scale),
#define GN_W(c) NORM_LOAD1(DTYPE_SCALE, TENSOR1D_PTR(scale, DTYPE_SCALE, c))
#else
#define GN_SCALE_PARAM
#define GN_W(c) 1.0f
#endif
#ifdef USE_BIAS
#define GN_BIAS_PARAM DECL_TENSOR1D(bias),
#define GN_B(c) NORM_LOAD1(DTYPE_BIAS, TENSOR1D_PTR(bias, DTYPE_BIAS, c))
#else
#define GN_BIAS_PARAM
#define GN_B(c) 0.0f
#endif
#ifdef SAVE_MEAN
#define GN_MEAN_PARAM DECL_TENSOR2D(mean),
#else
#define GN_MEAN_PARAM
#endif
#ifdef SAVE_RSTD
#define GN_RSTD_PARAM DECL_TENSOR2D(rstd),
#else
#define GN_RSTD_PARAM
#endif

__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void groupnorm(
    GN_CACHE_PARAM DECL_TENSOR3D(src), GN_SCALE_PARAM GN_BIAS_PARAM GN_MEAN_PARAM GN_RSTD_PARAM
        DECL_TENSOR3D(dst),
    int num_groups, int channel_per_group, int mult_of_vector_size, float inv_normalized_size,
    float eps) {
  const int lid = get_local_id(0);
  const int g = get_global_id(1);
  const int b = get_global_id(2);
  const int c0 = g * channel_per_group;
  NORM_DECL_LOCALS

  NORM_VEC s = 0.0f, ss = 0.0f;
  for (int c = 0; c < channel_per_group; ++c) {
    __global const DTYPE *p = TENSOR3D_PTR(src, DTYPE, 0, c0 + c, b);
    const int base = c * mult_of_vector_size;
    NORM_ACC_RUN(DTYPE, p, mult_of_vector_size, lid, s, ss, GN_KEEP)
  }
  NORM_GROUP_SUM2(lid, s, ss, sum, sumsq)
  NORM_MEAN_RSTD(sum, sumsq, inv_normalized_size, eps, mean_v, rstd_v)
  if (lid == 0) {
#ifdef SAVE_MEAN
    NORM_STORE1(MEAN_DTYPE, mean_v, TENSOR2D_PTR(mean, MEAN_DTYPE, g, b));
#endif
#ifdef SAVE_RSTD
    NORM_STORE1(RSTD_DTYPE, rstd_v, TENSOR2D_PTR(rstd, RSTD_DTYPE, g, b));
#endif
  }
  for (int c = 0; c < channel_per_group; ++c) {
    __global const DTYPE *p = TENSOR3D_PTR(src, DTYPE, 0, c0 + c, b);
    __global DTYPE *q = TENSOR3D_PTR(dst, DTYPE, 0, c0 + c, b);
    const int base = c * mult_of_vector_size;
    const float sc = rstd_v * GN_W(c0 + c);
    const float sh = GN_B(c0 + c) - mean_v * sc;
#if VEC_SIZE_LEFTOVER > 0
    if (lid == 0) NORM_STORE(DTYPE, NORM_LOAD(DTYPE, p) * sc + sh, q);
#endif
    FOR_SHARE(i, lid, mult_of_vector_size, BLOCK_SIZE) {
      NORM_STORE(DTYPE, GN_X(i) * sc + sh, q + VEC_SIZE_LEFTOVER + i * VEC_SIZE);
    }
  }
}
