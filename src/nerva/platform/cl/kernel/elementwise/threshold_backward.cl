/*
 * ThresholdBackward: input <= threshold ? 0 : g (NaN passes the gradient); integer
 * types compare with the threshold truncated toward zero.
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS , float threshold_f, long threshold_l
#if EW_INT
#define TH_THRESHOLD ((EW_T1)threshold_l)
#else
#define TH_THRESHOLD threshold_f
#endif
inline EW_T0 threshold_grad(EW_T0 g, EW_T1 x, float threshold_f, long threshold_l) {
  return x <= TH_THRESHOLD ? (EW_T0)0 : g;
}
#define EW_OP(g, x) threshold_grad(g, x, threshold_f, threshold_l)

EW_KERNELS(ThresholdBackward)
