/*
 * GeLUBackward of the exact GELU x * Phi(x): g * (Phi(x) + x * phi(x)), with
 * phi(x) = e^(-x^2 / 2) / sqrt(2 pi) and Phi(x) = (1 + erf(x / sqrt 2)) / 2.
 * The tail erfc(|x| / sqrt 2) = P(t) * e^(-x^2 / 2), t = 1 / (1 + p |x| / sqrt 2),
 * reuses the exponential of phi (absolute error below 1.5e-7, Abramowitz and
 * Stegun 7.1.26), so Phi is accurate in relative terms for negative x too.
 * EW_OP16 is the same on 16 lanes, for the explicit-vector flat kernel.
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS
/* e^(-x^2 / 2): the exponent is never positive. */
#define GELU_PHI_EXP(x) nerva_exp2_nonpositive((x) * (x) * (-0.5f * NERVA_LOG2E))
#define GELU_GRAD(T, g, x)                                                     \
  const T e = GELU_PHI_EXP(x);                                               \
  const T t = 1.0f / (1.0f + 0.3275911f * NERVA_SQRT1_2 * fabs(x));          \
  const T p =                                                                \
      t * (0.254829592f +                                                    \
           t * (-0.284496736f + t * (1.421413741f + t * (-1.453152027f + t * 1.061405429f)))); \
  const T tail = 0.5f * p * e; /* Phi(-|x|) */                               \
  const T cdf = select(1.0f - tail, tail, x < 0.0f);                         \
  return g * (cdf + x * e * 0.3989422804014327f);
inline float gelu_grad(float g, float x) { GELU_GRAD(float, g, x) }
inline float16 gelu_grad16(float16 g, float16 x) { GELU_GRAD(float16, g, x) }
#define EW_OP(g, x) gelu_grad(g, x)
#define EW_OP16(g, x) gelu_grad16(g, x)

EW_KERNELS(GeLUBackward)
