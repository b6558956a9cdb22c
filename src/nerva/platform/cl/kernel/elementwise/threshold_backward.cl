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
#define EW_OP(g, x) ((x) <= TH_THRESHOLD ? (EW_T0)0 : (g))

EW_KERNELS(ThresholdBackward)
