/*
 * Ternary: out = OP(x, a, b) in the promoted type (float for half):
 *   ADDCMUL  x + value * a * b
 *   ADDCDIV  x + value * a / b
 *   LERP     x + b * (a - x) for |b| < 0.5, else a - (a - x) * (1 - b)
 * value arrives as a float and as a long (integer tensors use the long).
 */
// #include "common.h"
// #include "elementwise.h"

#define EW_ARITY 3
#define EW_PARAMS , float value_f, long value_l
#if EW_INT
#define TE_VALUE ((EW_T0)value_l)
#else
#define TE_VALUE value_f
#endif
#define TE_ADDCMUL(x, a, b) ((x) + TE_VALUE * (a) * (b))
#define TE_ADDCDIV(x, a, b) ((x) + TE_VALUE * (a) / (b))
#define TE_LERP(x, a, b) (fabs(b) < 0.5f ? (x) + (b) * ((a) - (x)) : (a) - ((a) - (x)) * (1.0f - (b)))
#define EW_OP(x, a, b) NERVA_CAT(TE_, OP)(x, a, b)

EW_KERNELS(Ternary)
EW_FOREACH_KERNEL(ForEachTernary)
