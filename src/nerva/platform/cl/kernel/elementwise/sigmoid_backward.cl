/*
 * SigmoidBackward from the forward's output y: g * (1 - y) * y.
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS
#define EW_OP(g, y) ((g) * (1.0f - (y)) * (y))

EW_KERNELS(SigmoidBackward)
