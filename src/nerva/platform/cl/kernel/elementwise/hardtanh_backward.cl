/*
 * HardTanHBackward: x <= min_val || x >= max_val ? 0 : g.
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS , float min_val, float max_val
#define EW_OP(g, x) ((x) <= min_val || (x) >= max_val ? 0.0f : (g))

EW_KERNELS(HardTanHBackward)
