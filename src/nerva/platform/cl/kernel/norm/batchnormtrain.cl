/*
 * Training batch normalisation on a 3-D view: batch on z, channels on y, the
 * spatial run on x. Definitions: DTYPE, VEC_SIZE, VEC_SIZE_LEFTOVER (of the
 * spatial run), BLOCK_SIZE; UPDATE_RUNNING (running mean and var in, new
 * running statistics out), USE_SCALE, USE_BIAS, SAVE_MEAN, SAVE_RSTD;
 * USE_SHARE_MEMORY (the channel's whole vectors in a local float array, the
 * first argument). Statistics and parameters are float.
 *
 * One group per channel walks the `channel` batches (the z extent) for the
 * sum and sum of squares: save_mean = sum * rcp, var = sumsq * rcp -
 * save_mean^2 (biased), save_rstd = rsqrt(var + eps);
 * new_mean = momentum * save_mean + (1 - momentum) * running_mean and
 * new_var = momentum * var * coef_var + (1 - momentum) * running_var, where
 * coef_var = n / (n - 1) unbiases the variance. The output uses save_mean and
 * save_rstd: y = x * s + (b - save_mean * s) with s = save_rstd * w.
 * SPLIT_STATS spreads the same steps over three kernels (below).
 */
// #include "common.h"
// #include "reduce.h"
// #include "norm.h"

#ifdef USE_SHARE_MEMORY
#define BNT_CACHE_PARAM __local float *cache,
#define BNT_KEEP(i, x) NORM_CACHE_STORE(cache, base + (i), x)
#define BNT_X(i) NORM_CACHE_LOAD(cache, base + (i))
#else
#define BNT_CACHE_PARAM
#define BNT_KEEP(i, x)
#define BNT_X(i) NORM_LOAD(DTYPE, p + VEC_SIZE_LEFTOVER + (i) * VEC_SIZE)
#endif
#ifdef UPDATE_RUNNING
#define BNT_RUNNING_PARAM DECL_TENSOR1D(running_mean), DECL_TENSOR1D(running_var),
#define BNT_NEW_PARAM DECL_TENSOR1D(new_mean), DECL_TENSOR1D(new_var),
#else
#define BNT_RUNNING_PARAM
#define BNT_NEW_PARAM
#endif
#ifdef USE_SCALE
#define BNT_SCALE_PARAM DECL_TENSOR1D(weight),
#define BNT_W(c) (*TENSOR1D_PTR(weight, float, c))
#else
#define BNT_SCALE_PARAM
#define BNT_W(c) 1.0f
#endif
#ifdef USE_BIAS
#define BNT_BIAS_PARAM DECL_TENSOR1D(bias),
#define BNT_B(c) (*TENSOR1D_PTR(bias, float, c))
#else
#define BNT_BIAS_PARAM
#define BNT_B(c) 0.0f
#endif
#ifdef SAVE_MEAN
#define BNT_MEAN_PARAM DECL_TENSOR1D(save_mean),
#else
#define BNT_MEAN_PARAM
#endif
#ifdef SAVE_RSTD
#define BNT_RSTD_PARAM DECL_TENSOR1D(save_rstd),
#else
#define BNT_RSTD_PARAM
#endif

/* Writes the statistics of channel c that the caller asked for. */
#ifdef SAVE_MEAN
#define BNT_SAVE_MEAN(c, mean) *TENSOR1D_PTR(save_mean, float, c) = (mean);
#else
#define BNT_SAVE_MEAN(c, mean)
#endif
#ifdef SAVE_RSTD
#define BNT_SAVE_RSTD(c, rstd) *TENSOR1D_PTR(save_rstd, float, c) = (rstd);
#else
#define BNT_SAVE_RSTD(c, rstd)
#endif
#ifdef UPDATE_RUNNING
#define BNT_SAVE_RUNNING(c, mean, var)                                         \
  *TENSOR1D_PTR(new_mean, float, c) =                                        \
      momentum * (mean) + (1.0f - momentum) * *TENSOR1D_PTR(running_mean, float, c); \
  *TENSOR1D_PTR(new_var, float, c) =                                         \
      momentum * (var) * coef_var + (1.0f - momentum) * *TENSOR1D_PTR(running_var, float, c);
#else
#define BNT_SAVE_RUNNING(c, mean, var)
#endif
#define BNT_SAVE_STATS(c, mean, var, rstd)                                     \
  BNT_SAVE_MEAN(c, mean) BNT_SAVE_RSTD(c, rstd) BNT_SAVE_RUNNING(c, mean, var)

#ifdef SPLIT_STATS
/* Three passes (every input on devices that are not the host CPU, large
 * ones there, with groups of one item). batchnormtrain_partial:
 * one group per (batch, channel) slice (slice b * C + c on y) writes its sum
 * and sum of squares to partial[slice]. batchnormtrain_stats: item c merges
 * the `channel` batches' partials of channel c, writes the statistics and
 * coeff[c] = (scale, shift). batchnormtrain_apply: one group per slice maps
 * it with its channel's coefficients. */
__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void batchnormtrain_partial(
    DECL_TENSOR2D(src), __global float2 *partial, int mult_of_vector_size_x) {
  const int lid = get_local_id(0);
  const int slice = get_global_id(1);
  __global const DTYPE *p = TENSOR2D_PTR(src, DTYPE, 0, slice);
  NORM_DECL_LOCALS
  NORM_VEC s = 0.0f, ss = 0.0f;
  NORM_ACC_RUN(DTYPE, p, mult_of_vector_size_x, lid, s, ss, NORM_NO_KEEP)
  NORM_GROUP_SUM2(lid, s, ss, sum, sumsq)
  if (lid == 0) partial[slice] = (float2)(sum, sumsq);
}

__kernel void batchnormtrain_stats(__global const float2 *partial, BNT_RUNNING_PARAM BNT_SCALE_PARAM
                                       BNT_BIAS_PARAM BNT_MEAN_PARAM BNT_RSTD_PARAM BNT_NEW_PARAM
                                           __global float2 *coeff,
                                   int channels, int channel, float rcp, float coef_var,
                                   float momentum, float eps) {
  const int c = get_global_id(0);
  if (c >= channels) return;
  float2 acc = 0.0f;
  for (int b = 0; b < channel; ++b) acc += partial[b * channels + c];
  const float mean = acc.x * rcp;
  const float var = fmax(acc.y * rcp - mean * mean, 0.0f);
  const float rstd = rsqrt(var + eps);
  BNT_SAVE_STATS(c, mean, var, rstd)
  const float sc = rstd * BNT_W(c);
  coeff[c] = (float2)(sc, BNT_B(c) - mean * sc);
}

__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void batchnormtrain_apply(
    DECL_TENSOR2D(src), DECL_TENSOR2D(dst), __global const float2 *coeff, int channels,
    int mult_of_vector_size_x) {
  const int lid = get_local_id(0);
  const int slice = get_global_id(1);
  const float2 k = coeff[slice % channels];
  __global const DTYPE *p = TENSOR2D_PTR(src, DTYPE, 0, slice);
  __global DTYPE *q = TENSOR2D_PTR(dst, DTYPE, 0, slice);
#if VEC_SIZE_LEFTOVER > 0
  if (lid == 0) {
    for (int j = 0; j < VEC_SIZE_LEFTOVER; ++j) NORM_STORE1(DTYPE, NORM_LOAD1(DTYPE, p + j) * k.x + k.y, q + j);
  }
#endif
  FOR_SHARE(i, lid, mult_of_vector_size_x, BLOCK_SIZE) {
    const int off = VEC_SIZE_LEFTOVER + i * VEC_SIZE;
    NORM_STORE(DTYPE, NORM_LOAD(DTYPE, p + off) * k.x + k.y, q + off);
  }
}

#else
__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void BatchNormTrain(
    BNT_CACHE_PARAM DECL_TENSOR3D(src), BNT_RUNNING_PARAM BNT_SCALE_PARAM BNT_BIAS_PARAM
        DECL_TENSOR3D(dst),
    BNT_MEAN_PARAM BNT_RSTD_PARAM BNT_NEW_PARAM int mult_of_vector_size_x, int channel,
    float rcp, float coef_var, float momentum, float eps) {
  const int lid = get_local_id(0);
  const int c = get_global_id(1);
  NORM_DECL_LOCALS

  NORM_VEC s = 0.0f, ss = 0.0f;
  for (int b = 0; b < channel; ++b) {
    __global const DTYPE *p = TENSOR3D_PTR(src, DTYPE, 0, c, b);
    const int base = b * mult_of_vector_size_x;
    NORM_ACC_RUN(DTYPE, p, mult_of_vector_size_x, lid, s, ss, BNT_KEEP)
  }
  NORM_GROUP_SUM2(lid, s, ss, sum, sumsq)
  const float mean = sum * rcp;
  const float var = fmax(sumsq * rcp - mean * mean, 0.0f);
  const float rstd = rsqrt(var + eps);
  if (lid == 0) {
    BNT_SAVE_STATS(c, mean, var, rstd)
  }
  const float sc = rstd * BNT_W(c);
  const float sh = BNT_B(c) - mean * sc;
  for (int b = 0; b < channel; ++b) {
    __global const DTYPE *p = TENSOR3D_PTR(src, DTYPE, 0, c, b);
    __global DTYPE *q = TENSOR3D_PTR(dst, DTYPE, 0, c, b);
    const int base = b * mult_of_vector_size_x;
#if VEC_SIZE_LEFTOVER > 0
    if (lid == 0) NORM_STORE(DTYPE, NORM_LOAD(DTYPE, p) * sc + sh, q);
#endif
    FOR_SHARE(i, lid, mult_of_vector_size_x, BLOCK_SIZE) {
      NORM_STORE(DTYPE, BNT_X(i) * sc + sh, q + VEC_SIZE_LEFTOVER + i * VEC_SIZE);
    }
  }
}
#endif
