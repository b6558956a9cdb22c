/*
 * GeLUBackward of the exact GELU x * Phi(x): g * (Phi(x) + x * phi(x)), with
 * phi(x) = e^(-x^2 / 2) / sqrt(2 pi) and Phi(x) = (1 + erf(x / sqrt 2)) / 2.
 * The tail erfc(|x| / sqrt 2) = P(t) * e^(-x^2 / 2), t = 1 / (1 + p |x| / sqrt 2),
 * reuses the exponential of phi (absolute error below 1.5e-7, Abramowitz and
 * Stegun 7.1.26), so Phi is accurate in relative terms for negative x too.
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS
inline float gelu_grad(float g, float x) {
  const float e = NERVA_EXP(-0.5f * x * x);
  const float t = 1.0f / (1.0f + 0.3275911f * NERVA_SQRT1_2 * fabs(x));
  const float p =
      t * (0.254829592f +
           t * (-0.284496736f + t * (1.421413741f + t * (-1.453152027f + t * 1.061405429f))));
  const float tail = 0.5f * p * e; /* Phi(-|x|) */
  const float cdf = x < 0.0f ? tail : 1.0f - tail;
  return g * (cdf + x * e * 0.3989422804014327f);
}
#define EW_OP(g, x) gelu_grad(g, x)

EW_KERNELS(GeLUBackward)
