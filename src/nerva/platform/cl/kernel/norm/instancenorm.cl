/*
 * Instance normalisation with the batch statistics on a 3-D view: batch on
 * z, channels on y, the spatial run on x. Definitions: DTYPE, VEC_SIZE,
 * VEC_SIZE_LEFTOVER (of the spatial run), BLOCK_SIZE; USE_SCALE with
 * DTYPE_SCALE, USE_BIAS with DTYPE_BIAS (per channel); USE_SHARE_MEMORY (the
 * run's whole vectors in a local float array, the first argument).
 *
 * One group per (channel, batch) run: mean, rstd = rsqrt(sumsq / n - mean^2
 * + eps), y = x * s + (b[c] - mean * s) with s = rstd * w[c].
 */
// #include "common.h"
// #include "reduce.h"
// #include "norm.h"

#ifdef USE_SHARE_MEMORY
#define IN_CACHE_PARAM __local float *cache,
#define IN_KEEP(i, x) NORM_CACHE_STORE(cache, i, x)
#define IN_X(i) NORM_CACHE_LOAD(cache, i)
#else
#define IN_CACHE_PARAM
#define IN_KEEP(i, x)
#define IN_X(i) NORM_LOAD(DTYPE, p + VEC_SIZE_LEFTOVER + (i) * VEC_SIZE)
#endif
#ifdef USE_SCALE
#define IN_SCALE_PARAM DECL_TENSOR1D(scale),
#define IN_W(c) NORM_LOAD1(DTYPE_SCALE, TENSOR1D_PTR(scale, DTYPE_SCALE, c))
#else
#define IN_SCALE_PARAM
#define IN_W(c) 1.0f
#endif
#ifdef USE_BIAS
#define IN_BIAS_PARAM DECL_TENSOR1D(bias),
#define IN_B(c) NORM_LOAD1(DTYPE_BIAS, TENSOR1D_PTR(bias, DTYPE_BIAS, c))
#else
#define IN_BIAS_PARAM
#define IN_B(c) 0.0f
#endif

__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void instance_norm(
    IN_CACHE_PARAM DECL_TENSOR3D(src), IN_SCALE_PARAM IN_BIAS_PARAM DECL_TENSOR3D(dst),
    int mult_of_vector_size, float inv_normalized_size, float eps) {
  const int lid = get_local_id(0);
  const int c = get_global_id(1);
  const int b = get_global_id(2);
  __global const DTYPE *p = TENSOR3D_PTR(src, DTYPE, 0, c, b);
  __global DTYPE *q = TENSOR3D_PTR(dst, DTYPE, 0, c, b);
  NORM_DECL_LOCALS

  NORM_VEC s = 0.0f, ss = 0.0f;
  NORM_ACC_RUN(DTYPE, p, mult_of_vector_size, lid, s, ss, IN_KEEP)
  NORM_GROUP_SUM2(lid, s, ss, sum, sumsq)
  NORM_MEAN_RSTD(sum, sumsq, inv_normalized_size, eps, mean, rstd)
  const float sc = rstd * IN_W(c);
  const float sh = IN_B(c) - mean * sc;
#if VEC_SIZE_LEFTOVER > 0
  if (lid == 0) NORM_STORE(DTYPE, NORM_LOAD(DTYPE, p) * sc + sh, q);
#endif
  FOR_SHARE(i, lid, mult_of_vector_size, BLOCK_SIZE) {
    NORM_STORE(DTYPE, IN_X(i) * sc + sh, q + VEC_SIZE_LEFTOVER + i * VEC_SIZE);
  }
}
