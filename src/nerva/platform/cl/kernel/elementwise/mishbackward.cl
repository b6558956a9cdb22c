/*
 * MishBackward: g * (t + x * s * (1 - t * t)) with s = sigmoid(x) and
 * t = tanh(softplus(x)); softplus(x) = max(x, 0) + log1p(e^-|x|) does not overflow.
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS
inline float mish_grad(float g, float x) {
  const float sp = fmax(x, 0.0f) + log1p(exp(-fabs(x)));
  const float t = tanh(sp);
  const float e = exp(-fabs(x));
  const float s = x >= 0.0f ? 1.0f / (1.0f + e) : e / (1.0f + e);
  return g * (t + x * s * (1.0f - t * t));
}
#define EW_OP(g, x) mish_grad(g, x)

EW_KERNELS(MishBackward)
