/*
 * LogitBackward: outside [lo, hi] the value `outside` (NaN without eps, 0 with eps);
 * at 0 and 1 g * infinity; else g / (x * (1 - x)).
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS , float lo, float hi, float outside
inline float logit_grad(float g, float x, float lo, float hi, float outside) {
  if (x < lo || x > hi) return outside;
  return x == 0.0f || x == 1.0f ? g * INFINITY : g / (x * (1.0f - x));
}
#define EW_OP(g, x) logit_grad(g, x, lo, hi, outside)

EW_KERNELS(LogitBackward)
