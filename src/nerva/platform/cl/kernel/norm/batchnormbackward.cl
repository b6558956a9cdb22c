/*
 * Gradients of batch normalisation on a 3-D view: batch on z, channels on y,
 * the spatial run on x. Definitions: DTYPE (grad, input, grad input),
 * VEC_SIZE, VEC_SIZE_LEFTOVER (of the spatial run), BLOCK_SIZE; TRAINING
 * (function batch_norm_backward_with_train: the saved batch mean and rstd;
 * otherwise batch_norm_backward: the running mean and var, with
 * inv_std = rsqrt(var + eps)); USE_WEIGHT; SAVE_GRAD_INPUT, SAVE_WEIGHT,
 * SAVE_BIAS (which gradients to write); USE_INPUT_SHARE_MEMORY and
 * USE_GRAD_SHARE_MEMORY (the channel's input and gradient in local float
 * arrays, the first arguments, in that order). Statistics and weight are float.
 *
 * One group per channel walks the `channel` batches for sum_dy = sum dy and
 * dotp = sum (x - mean) dy. grad_scale = inv_std * w; in training
 * proj_scale = inv_std * dotp * rcp and
 * dx = (dy - sum_dy * rcp - (x - mean) * proj_scale * inv_std) * grad_scale;
 * otherwise dx = dy * grad_scale. dw = dotp * inv_std, db = sum_dy.
 */
// #include "common.h"
// #include "reduce.h"
// #include "norm.h"

#ifdef TRAINING
#define BNB_NAME batch_norm_backward_with_train
#define BNB_INV_STD(v) (v)
#else
#define BNB_NAME batch_norm_backward
#define BNB_INV_STD(v) rsqrt((v) + eps)
#endif
#ifdef USE_INPUT_SHARE_MEMORY
#define BNB_X_CACHE __local float *x_cache,
#define BNB_KEEP_X(i, v) NORM_CACHE_STORE(x_cache, base + (i), v)
#define BNB_X(i) NORM_CACHE_LOAD(x_cache, base + (i))
#else
#define BNB_X_CACHE
#define BNB_KEEP_X(i, v)
#define BNB_X(i) NORM_LOAD(DTYPE, p + VEC_SIZE_LEFTOVER + (i) * VEC_SIZE)
#endif
#ifdef USE_GRAD_SHARE_MEMORY
#define BNB_G_CACHE __local float *g_cache,
#define BNB_KEEP_G(i, v) NORM_CACHE_STORE(g_cache, base + (i), v)
#define BNB_G(i) NORM_CACHE_LOAD(g_cache, base + (i))
#else
#define BNB_G_CACHE
#define BNB_KEEP_G(i, v)
#define BNB_G(i) NORM_LOAD(DTYPE, pg + VEC_SIZE_LEFTOVER + (i) * VEC_SIZE)
#endif
#ifdef USE_WEIGHT
#define BNB_WEIGHT_PARAM DECL_TENSOR1D(weight),
#define BNB_W(c) (*TENSOR1D_PTR(weight, float, c))
#else
#define BNB_WEIGHT_PARAM
#define BNB_W(c) 1.0f
#endif
#ifdef SAVE_GRAD_INPUT
#define BNB_DX_PARAM DECL_TENSOR3D(dst),
#else
#define BNB_DX_PARAM
#endif
#ifdef SAVE_WEIGHT
#define BNB_DW_PARAM DECL_TENSOR1D(grad_weight),
#else
#define BNB_DW_PARAM
#endif
#ifdef SAVE_BIAS
#define BNB_DB_PARAM DECL_TENSOR1D(grad_bias),
#else
#define BNB_DB_PARAM
#endif

__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void BNB_NAME(
    BNB_X_CACHE BNB_G_CACHE DECL_TENSOR3D(grad), DECL_TENSOR3D(src), BNB_WEIGHT_PARAM
        DECL_TENSOR1D(mean),
    DECL_TENSOR1D(var), BNB_DX_PARAM BNB_DW_PARAM BNB_DB_PARAM int mult_of_vector_size_x,
    int channel, float rcp, float eps) {
  const int lid = get_local_id(0);
  const int c = get_global_id(1);
  const float mu = *TENSOR1D_PTR(mean, float, c);
  const float inv_std = BNB_INV_STD(*TENSOR1D_PTR(var, float, c));
  NORM_DECL_LOCALS

  NORM_VEC sg = 0.0f, sp = 0.0f;
  for (int b = 0; b < channel; ++b) {
    __global const DTYPE *p = TENSOR3D_PTR(src, DTYPE, 0, c, b);
    __global const DTYPE *pg = TENSOR3D_PTR(grad, DTYPE, 0, c, b);
    const int base = b * mult_of_vector_size_x;
    if (VEC_SIZE_LEFTOVER > 0 && lid == 0) {
      for (int k = 0; k < VEC_SIZE_LEFTOVER; ++k) {
        const float dy = NORM_LOAD1(DTYPE, pg + k);
        NORM_FIRST_LANE(sg) += dy;
        NORM_FIRST_LANE(sp) += (NORM_LOAD1(DTYPE, p + k) - mu) * dy;
      }
    }
    FOR_SHARE(i, lid, mult_of_vector_size_x, BLOCK_SIZE) {
      const NORM_VEC x = NORM_LOAD(DTYPE, p + VEC_SIZE_LEFTOVER + i * VEC_SIZE);
      const NORM_VEC dy = NORM_LOAD(DTYPE, pg + VEC_SIZE_LEFTOVER + i * VEC_SIZE);
      BNB_KEEP_X(i, x);
      BNB_KEEP_G(i, dy);
      sg += dy;
      sp += (x - mu) * dy;
    }
  }
  NORM_GROUP_SUM2(lid, sg, sp, sum_dy, dotp)
  if (lid == 0) {
#ifdef SAVE_WEIGHT
    *TENSOR1D_PTR(grad_weight, float, c) = dotp * inv_std;
#endif
#ifdef SAVE_BIAS
    *TENSOR1D_PTR(grad_bias, float, c) = sum_dy;
#endif
  }
#ifdef SAVE_GRAD_INPUT
  const float grad_scale = inv_std * BNB_W(c);
#ifdef TRAINING
  const float proj_scale = inv_std * dotp * rcp;
  const float grad_mean = sum_dy * rcp;
#define BNB_DX(x, dy) (((dy)-grad_mean - ((x)-mu) * proj_scale * inv_std) * grad_scale)
#else
#define BNB_DX(x, dy) ((dy)*grad_scale)
#endif
  for (int b = 0; b < channel; ++b) {
    __global const DTYPE *p = TENSOR3D_PTR(src, DTYPE, 0, c, b);
    __global const DTYPE *pg = TENSOR3D_PTR(grad, DTYPE, 0, c, b);
    __global DTYPE *q = TENSOR3D_PTR(dst, DTYPE, 0, c, b);
    const int base = b * mult_of_vector_size_x;
#if VEC_SIZE_LEFTOVER > 0
    if (lid == 0) NORM_STORE(DTYPE, BNB_DX(NORM_LOAD(DTYPE, p), NORM_LOAD(DTYPE, pg)), q);
#endif
    FOR_SHARE(i, lid, mult_of_vector_size_x, BLOCK_SIZE) {
      NORM_STORE(DTYPE, BNB_DX(BNB_X(i), BNB_G(i)), q + VEC_SIZE_LEFTOVER + i * VEC_SIZE);
    }
  }
#endif
}
