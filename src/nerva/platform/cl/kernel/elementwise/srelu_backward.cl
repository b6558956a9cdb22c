/*
 * SReLUBackward of x >= 0 ? x * x : 0: x >= 0 ? 2 * x * g : 0.
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS
inline float srelu_grad(float g, float x) {
  return x >= 0.0f ? 2.0f * x * g : 0.0f;
}
#define EW_OP(g, x) srelu_grad(g, x)

EW_KERNELS(SReLUBackward)
