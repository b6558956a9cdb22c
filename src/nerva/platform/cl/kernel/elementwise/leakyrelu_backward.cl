/*
 * LeakyReluBackward: x > 0 ? g : g * negative_slope.
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS , float negative_slope
inline float leaky_relu_grad(float g, float x, float negative_slope) {
  return x > 0.0f ? g : g * negative_slope;
}
#define EW_OP(g, x) leaky_relu_grad(g, x, negative_slope)

EW_KERNELS(LeakyReluBackward)
