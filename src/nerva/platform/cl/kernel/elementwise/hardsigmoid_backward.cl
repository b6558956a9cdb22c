/*
 * HardSigmoidBackward of clamp(alpha * x + beta, 0, 1): g * alpha strictly between
 * the kinks lo < x < hi, else 0.
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS , float lo, float hi, float alpha
inline float hardsigmoid_grad(float g, float x, float lo, float hi, float alpha) {
  return x > lo && x < hi ? g * alpha : 0.0f;
}
#define EW_OP(g, x) hardsigmoid_grad(g, x, lo, hi, alpha)

EW_KERNELS(HardSigmoidBackward)
