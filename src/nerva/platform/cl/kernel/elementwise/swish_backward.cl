/*
 * SwishBackward of x * sigmoid(alpha * x): g * s * (1 + alpha * x * (1 - s)) with
 * s = sigmoid(alpha * x).
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS , float alpha
inline float swish_grad(float g, float x, float alpha) {
  const float s = NERVA_SIGMOID(alpha * x);
  return g * s * (1.0f + alpha * x * (1.0f - s));
}
#define EW_OP(g, x) swish_grad(g, x, alpha)

EW_KERNELS(SwishBackward)
