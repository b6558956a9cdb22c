/*
 * GeLUBackward of the exact GELU x * Phi(x): g * (Phi(x) + x * phi(x)), with
 * Phi(x) = (1 + erf(x / sqrt 2)) / 2 and phi(x) = e^(-x^2 / 2) / sqrt(2 pi).
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS
inline float gelu_grad(float g, float x) {
  const float cdf = 0.5f * (1.0f + NERVA_ERF(1, x * NERVA_SQRT1_2));
  const float pdf = NERVA_EXP(-0.5f * x * x) * 0.3989422804014327f;
  return g * (cdf + x * pdf);
}
#define EW_OP(g, x) gelu_grad(g, x)

EW_KERNELS(GeLUBackward)
