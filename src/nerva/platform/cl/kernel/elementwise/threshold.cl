/*
 * Threshold: out = x > threshold ? x : value, in x's type; the scalars arrive
 * as floats and as longs (integer tensors use the longs).
 */
// #include "common.h"
// #include "elementwise.h"

#define EW_ARITY 1
#define EW_PARAMS , float threshold_f, float value_f, long threshold_l, long value_l
#if EW_INT
#define TH_SCALAR(name) ((EW_T0)name##_l)
#else
#define TH_SCALAR(name) ((EW_T0)name##_f)
#endif
#define EW_OP(x) ((x) > TH_SCALAR(threshold) ? (x) : TH_SCALAR(value))

EW_KERNELS(Threshold)
