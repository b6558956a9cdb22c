/*
 * Inference batch normalisation with the running statistics on a 3-D view:
 * batch on z, channels on y, the spatial run on x. Definitions: DTYPE,
 * VEC_SIZE, VEC_SIZE_LEFTOVER (of the spatial run); USE_SCALE, USE_BIAS.
 * The statistics, weight and bias are float.
 *
 * One item per vector of a spatial run (shifted back as in VEC_OFFSET when
 * the run has a leftover): y = (x - mean[c]) * rsqrt(var[c] + eps) * w[c] + b[c].
 */
// #include "common.h"

#ifdef USE_SCALE
#define BN_SCALE_PARAM DECL_TENSOR1D(weight),
#define BN_W(c) (*TENSOR1D_PTR(weight, float, c))
#else
#define BN_SCALE_PARAM
#define BN_W(c) 1.0f
#endif
#ifdef USE_BIAS
#define BN_BIAS_PARAM DECL_TENSOR1D(bias),
#define BN_B(c) (*TENSOR1D_PTR(bias, float, c))
#else
#define BN_BIAS_PARAM
#define BN_B(c) 0.0f
#endif

__kernel void BatchNorm(DECL_TENSOR3D(src), DECL_TENSOR1D(mean), DECL_TENSOR1D(var),
                        BN_SCALE_PARAM BN_BIAS_PARAM DECL_TENSOR3D(dst), float eps) {
  const int x = VEC_OFFSET(get_global_id(0), VEC_SIZE, VEC_SIZE_LEFTOVER);
  const int c = get_global_id(1);
  const int b = get_global_id(2);
  const float m = *TENSOR1D_PTR(mean, float, c);
  const float inv_std = rsqrt(*TENSOR1D_PTR(var, float, c) + eps);
  const DECL_VEC_TYPE(float, VEC_SIZE) v =
      CONVERT(float, VEC_SIZE, VLOAD(DTYPE, VEC_SIZE, TENSOR3D_PTR(src, DTYPE, x, c, b)));
  VSTORE(DTYPE, VEC_SIZE, CONVERT(DTYPE, VEC_SIZE, (v - m) * inv_std * BN_W(c) + BN_B(c)),
         TENSOR3D_PTR(dst, DTYPE, x, c, b));
}
