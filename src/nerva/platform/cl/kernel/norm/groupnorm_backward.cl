/*
 * Gradients of group normalisation from the saved (batch x group) mean and
 * rstd, on 3-D views: batch on z, channels on y, the spatial run on x.
 * Definitions: DTYPE (grad, input, grad input), MEAN_DTYPE, RSTD_DTYPE,
 * VEC_SIZE, VEC_SIZE_LEFTOVER (of the spatial run), BLOCK_SIZE.
 *
 * groupnorm_backward_grad_x: one group of items per (group, batch). With the
 * group sums ds = sum w[c] dy x and db = sum w[c] dy (USE_WEIGHT,
 * DTYPE_WEIGHT), c2 = (db * mean - ds) * rstd^3 * inv_normalized_size and
 * c3 = -c2 * mean - db * rstd * inv_normalized_size, channel c is written as
 * dx = rstd * w[c] * dy + c2 * x + c3. USE_INPUT_SHARE_MEMORY and
 * USE_GRAD_SHARE_MEMORY keep the input and the gradient of the group in
 * local float arrays (the first arguments, in that order).
 *
 * groupnorm_backward_grad_wb (GRAD_WEIGHT_BIAS): one group of items per
 * channel walks the batches: dw[c] = sum dy (x - mean) rstd (SAVE_WEIGHT,
 * DTYPE_SCALE) and db[c] = sum dy (SAVE_BIAS, DTYPE_BIAS).
 */
// #include "common.h"
// #include "reduce.h"
// #include "norm.h"

#ifndef GRAD_WEIGHT_BIAS
#ifdef USE_INPUT_SHARE_MEMORY
#define GNB_X_CACHE __local float *x_cache,
#define GNB_KEEP_X(i, v) NORM_CACHE_STORE(x_cache, base + (i), v)
#define GNB_X(i) NORM_CACHE_LOAD(x_cache, base + (i))
#else
#define GNB_X_CACHE
#define GNB_KEEP_X(i, v)
#define GNB_X(i) NORM_LOAD(DTYPE, p + VEC_SIZE_LEFTOVER + (i) * VEC_SIZE)
#endif
#ifdef USE_GRAD_SHARE_MEMORY
#define GNB_G_CACHE __local float *g_cache,
#define GNB_KEEP_G(i, v) NORM_CACHE_STORE(g_cache, base + (i), v)
#define GNB_G(i) NORM_CACHE_LOAD(g_cache, base + (i))
#else
#define GNB_G_CACHE
#define GNB_KEEP_G(i, v)
#define GNB_G(i) NORM_LOAD(DTYPE, pg + VEC_SIZE_LEFTOVER + (i) * VEC_SIZE)
#endif
#ifdef USE_WEIGHT
#define GNB_WEIGHT_PARAM DECL_TENSOR1D(weight),
#define GNB_W(c) NORM_LOAD1(DTYPE_WEIGHT, TENSOR1D_PTR(weight, DTYPE_WEIGHT, c))
#else
#define GNB_WEIGHT_PARAM
#define GNB_W(c) 1.0f
#endif

__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void groupnorm_backward_grad_x(
    GNB_X_CACHE GNB_G_CACHE DECL_TENSOR3D(grad), DECL_TENSOR3D(src), DECL_TENSOR2D(mean),
    DECL_TENSOR2D(rstd), GNB_WEIGHT_PARAM DECL_TENSOR3D(dst), int num_groups,
    int channel_per_group, int mult_of_vector_size, float inv_normalized_size) {
  const int lid = get_local_id(0);
  const int g = get_global_id(1);
  const int b = get_global_id(2);
  const int c0 = g * channel_per_group;
  const float mu = NORM_LOAD1(MEAN_DTYPE, TENSOR2D_PTR(mean, MEAN_DTYPE, g, b));
  const float rs = NORM_LOAD1(RSTD_DTYPE, TENSOR2D_PTR(rstd, RSTD_DTYPE, g, b));
  NORM_DECL_LOCALS

  NORM_VEC ds = 0.0f, db = 0.0f;
  for (int c = 0; c < channel_per_group; ++c) {
    __global const DTYPE *p = TENSOR3D_PTR(src, DTYPE, 0, c0 + c, b);
    __global const DTYPE *pg = TENSOR3D_PTR(grad, DTYPE, 0, c0 + c, b);
    const int base = c * mult_of_vector_size;
    const float w = GNB_W(c0 + c);
    NORM_VEC cs = 0.0f, cb = 0.0f;
    if (VEC_SIZE_LEFTOVER > 0 && lid == 0) {
      for (int k = 0; k < VEC_SIZE_LEFTOVER; ++k) {
        const float dy = NORM_LOAD1(DTYPE, pg + k);
        NORM_FIRST_LANE(cs) += dy * NORM_LOAD1(DTYPE, p + k);
        NORM_FIRST_LANE(cb) += dy;
      }
    }
    FOR_SHARE(i, lid, mult_of_vector_size, BLOCK_SIZE) {
      const NORM_VEC x = NORM_LOAD(DTYPE, p + VEC_SIZE_LEFTOVER + i * VEC_SIZE);
      const NORM_VEC dy = NORM_LOAD(DTYPE, pg + VEC_SIZE_LEFTOVER + i * VEC_SIZE);
      GNB_KEEP_X(i, x);
      GNB_KEEP_G(i, dy);
      cs += dy * x;
      cb += dy;
    }
    ds += cs * w;
    db += cb * w;
  }
  NORM_GROUP_SUM2(lid, ds, db, sum_ds, sum_db)
  const float c2 = (sum_db * mu - sum_ds) * rs * rs * rs * inv_normalized_size;
  const float c3 = -c2 * mu - sum_db * rs * inv_normalized_size;
  for (int c = 0; c < channel_per_group; ++c) {
    __global const DTYPE *p = TENSOR3D_PTR(src, DTYPE, 0, c0 + c, b);
    __global const DTYPE *pg = TENSOR3D_PTR(grad, DTYPE, 0, c0 + c, b);
    __global DTYPE *q = TENSOR3D_PTR(dst, DTYPE, 0, c0 + c, b);
    const int base = c * mult_of_vector_size;
    const float c1 = rs * GNB_W(c0 + c);
#if VEC_SIZE_LEFTOVER > 0
    if (lid == 0) {
      NORM_STORE(DTYPE, c1 * NORM_LOAD(DTYPE, pg) + c2 * NORM_LOAD(DTYPE, p) + c3, q);
    }
#endif
    FOR_SHARE(i, lid, mult_of_vector_size, BLOCK_SIZE) {
      NORM_STORE(DTYPE, c1 * GNB_G(i) + c2 * GNB_X(i) + c3, q + VEC_SIZE_LEFTOVER + i * VEC_SIZE);
    }
  }
}

#else /* GRAD_WEIGHT_BIAS */
#ifdef SAVE_WEIGHT
#define GNB_DW_PARAM DECL_TENSOR1D(grad_weight),
#else
#define GNB_DW_PARAM
#endif
#ifdef SAVE_BIAS
#define GNB_DB_PARAM DECL_TENSOR1D(grad_bias),
#else
#define GNB_DB_PARAM
#endif

__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void groupnorm_backward_grad_wb(
    DECL_TENSOR3D(grad), DECL_TENSOR3D(src), DECL_TENSOR2D(mean), DECL_TENSOR2D(rstd),
    GNB_DW_PARAM GNB_DB_PARAM int batch, int channel_per_group, int mult_of_vector_size) {
  const int lid = get_local_id(0);
  const int c = get_global_id(1);
  const int g = c / channel_per_group;
  NORM_DECL_LOCALS
  NORM_VEC dw = 0.0f, db = 0.0f;
  for (int b = 0; b < batch; ++b) {
    __global const DTYPE *p = TENSOR3D_PTR(src, DTYPE, 0, c, b);
    __global const DTYPE *pg = TENSOR3D_PTR(grad, DTYPE, 0, c, b);
    const float mu = NORM_LOAD1(MEAN_DTYPE, TENSOR2D_PTR(mean, MEAN_DTYPE, g, b));
    const float rs = NORM_LOAD1(RSTD_DTYPE, TENSOR2D_PTR(rstd, RSTD_DTYPE, g, b));
    if (VEC_SIZE_LEFTOVER > 0 && lid == 0) {
      for (int k = 0; k < VEC_SIZE_LEFTOVER; ++k) {
        const float dy = NORM_LOAD1(DTYPE, pg + k);
        NORM_FIRST_LANE(dw) += dy * (NORM_LOAD1(DTYPE, p + k) - mu) * rs;
        NORM_FIRST_LANE(db) += dy;
      }
    }
    FOR_SHARE(i, lid, mult_of_vector_size, BLOCK_SIZE) {
      const NORM_VEC dy = NORM_LOAD(DTYPE, pg + VEC_SIZE_LEFTOVER + i * VEC_SIZE);
      dw += dy * ((NORM_LOAD(DTYPE, p + VEC_SIZE_LEFTOVER + i * VEC_SIZE) - mu) * rs);
      db += dy;
    }
  }
  NORM_GROUP_SUM2(lid, dw, db, sum_dw, sum_db)
  if (lid == 0) {
#ifdef SAVE_WEIGHT
    NORM_STORE1(DTYPE_SCALE, sum_dw, TENSOR1D_PTR(grad_weight, DTYPE_SCALE, c));
#endif
#ifdef SAVE_BIAS
    NORM_STORE1(DTYPE_BIAS, sum_db, TENSOR1D_PTR(grad_bias, DTYPE_BIAS, c));
#endif
  }
}
#endif
