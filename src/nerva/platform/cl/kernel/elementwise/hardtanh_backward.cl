/*
 * HardTanHBackward: x <= min_val || x >= max_val ? 0 : g.
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS , float min_val, float max_val
inline float hardtanh_grad(float g, float x, float min_val, float max_val) {
  return x <= min_val || x >= max_val ? 0.0f : g;
}
#define EW_OP(g, x) hardtanh_grad(g, x, min_val, max_val)

EW_KERNELS(HardTanHBackward)
