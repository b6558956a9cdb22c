/*
 * HardSwishBackward: x < -3 ? 0 : x <= 3 ? g * (x / 3 + 1/2) : g.
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS
inline float hardswish_grad(float g, float x) {
  return x < -3.0f ? 0.0f : (x <= 3.0f ? g * (x / 3.0f + 0.5f) : g);
}
#define EW_OP(g, x) hardswish_grad(g, x)

EW_KERNELS(HardSwishBackward)
