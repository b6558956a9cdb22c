/*
 * ReLUBackward: grad_input = input <= 0 ? 0 : grad_output (NaN passes the gradient).
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS
/* A function, so that both loads happen unconditionally and the work items vectorise. */
inline EW_T0 relu_grad(EW_T0 g, EW_T1 x) {
  return x <= (EW_T1)0 ? (EW_T0)0 : g;
}
#define EW_OP(g, x) relu_grad(g, x)

EW_KERNELS(ReLUBackward)
