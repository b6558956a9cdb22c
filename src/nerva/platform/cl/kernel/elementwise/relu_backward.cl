/*
 * ReLUBackward: grad_input = input <= 0 ? 0 : grad_output (NaN passes the gradient).
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS
#define EW_OP(g, x) ((x) <= (EW_T1)0 ? (EW_T0)0 : (g))

EW_KERNELS(ReLUBackward)
