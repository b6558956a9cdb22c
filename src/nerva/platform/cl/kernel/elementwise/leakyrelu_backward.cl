/*
 * LeakyReluBackward: x > 0 ? g : g * negative_slope.
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS , float negative_slope
#define EW_OP(g, x) ((x) > 0.0f ? (g) : (g) * negative_slope)

EW_KERNELS(LeakyReluBackward)
