/*
 * MaskedFill: out = mask ? value : x. The value arrives as a float and as a
 * long (truncated on the host); integer and boolean tensors use the long.
 */
// #include "common.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS , float value_f, long value_l
#if EW_INT
#define MF_VALUE ((EW_T0)value_l)
#else
#define MF_VALUE ((EW_T0)value_f)
#endif
#define EW_OP(x, m) ((m) ? MF_VALUE : (x))

EW_KERNELS(MaskedFill)
