/*
 * SiluBackward: g * s * (1 + x * (1 - s)) with s = sigmoid(x).
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS
inline float silu_grad(float g, float x) {
  const float s = NERVA_SIGMOID(x);
  return g * s * (1.0f + x * (1.0f - s));
}
#define EW_OP(g, x) silu_grad(g, x)

EW_KERNELS(SiluBackward)
