/*
 * Binary: out = OP(a, b) for one element pair, both in their argument
 * register types (float for half). EW_INT marks integer or boolean
 * arguments, EW_SIGNED signed integers. alpha multiplies b in ADD and SUB.
 * Integer division and remainder by zero give 0 (the device cannot raise).
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS , float alpha
#define EW_OP(a, b) NERVA_CAT(BI_, OP)(a, b)
/* The float forms of ADD, SUB, MUL, DIV, FMAX, FMIN and COPYSIGN also hold
 * for float16 lanes (the host builds EW_VEC16 only for those). */
#define EW_OP16(a, b) NERVA_CAT(BI_, OP)(a, b)
#define T EW_T0

#if EW_INT
/* Integer quotient and remainder rounding toward zero; b == 0 gives 0 and
 * b == -1 avoids the overflow trap of the smallest value. */
inline T bi_div(T a, T b) {
  return b == 0 ? (T)0 : (EW_SIGNED && b == (T)-1) ? (T)(0 - a) : (T)(a / b);
}
inline T bi_rem(T a, T b) {
  return (b == 0 || (EW_SIGNED && b == (T)-1)) ? (T)0 : (T)(a % b);
}
inline T bi_div_floor(T a, T b) {
  const T q = bi_div(a, b), r = bi_rem(a, b);
  return (r != 0 && ((r < 0) != (b < 0))) ? (T)(q - 1) : q;
}
inline T bi_remainder(T a, T b) {
  const T r = bi_rem(a, b);
  return (r != 0 && ((r < 0) != (b < 0))) ? (T)(r + b) : r;
}
/* Exponentiation by squaring, wrapping; negative exponents as PyTorch. */
inline T bi_pow(T a, T b) {
  if (EW_SIGNED && b < 0) {
    if (a == 1) return 1;
    if (a == (T)-1) return (b & 1) ? (T)-1 : (T)1;
    return 0;
  }
  T result = 1;
  while (b != 0) {
    if (b & 1) result = (T)(result * a);
    b = (T)(b >> 1);
    a = (T)(a * a);
  }
  return result;
}
#define BITS (sizeof(T) * 8)
/* Shifts by a negative count or by at least the width: left gives 0, right
 * fills with the sign bit (0 for unsigned). */
inline T bi_shl(T a, T b) {
  return (b < 0 || (ulong)b >= BITS) ? (T)0 : (T)(a << b);
}
inline T bi_shr(T a, T b) {
#if EW_SIGNED
  return (b < 0 || (ulong)b >= BITS - 1) ? (T)(a >> (BITS - 1)) : (T)(a >> b);
#else
  return (ulong)b >= BITS ? (T)0 : (T)(a >> b);
#endif
}
#define BI_DIV_TRUNC(a, b) bi_div(a, b)
#define BI_DIV_FLOOR(a, b) bi_div_floor(a, b)
#define BI_REMAINDER(a, b) bi_remainder(a, b)
#define BI_FMOD(a, b) bi_rem(a, b)
#define BI_POW(a, b) bi_pow(a, b)
#define BI_MAXIMUM(a, b) max(a, b)
#define BI_MINIMUM(a, b) min(a, b)
#define BI_FMAX(a, b) max(a, b)
#define BI_FMIN(a, b) min(a, b)
#define BI_ADD(a, b) ((a) + (T)alpha * (b))
#define BI_SUB(a, b) ((a) - (T)alpha * (b))
#define BI_BITWISE_AND(a, b) ((a) & (b))
#define BI_BITWISE_OR(a, b) ((a) | (b))
#define BI_BITWISE_XOR(a, b) ((a) ^ (b))
#define BI_BITWISE_LEFT_SHIFT(a, b) bi_shl(a, b)
#define BI_BITWISE_RIGHT_SHIFT(a, b) bi_shr(a, b)
#else
/* Floor division and remainder as PyTorch computes them from fmod. */
inline T bi_div_floor(T a, T b) {
  if (b == 0) return a / b;
  const T mod = fmod(a, b);
  T div = (a - mod) / b;
  if (mod != 0 && ((b < 0) != (mod < 0))) div -= 1;
  T floordiv;
  if (div != 0) {
    floordiv = floor(div);
    if (div - floordiv > 0.5f) floordiv += 1;
  } else {
    floordiv = copysign(0.0f, a / b);
  }
  return floordiv;
}
inline T bi_remainder(T a, T b) {
  T mod = fmod(a, b);
  if (mod != 0 && ((b < 0) != (mod < 0))) mod += b;
  return mod;
}
/* NaN-propagating maximum and minimum. */
inline T bi_maximum(T a, T b) {
  return (isnan(a) || isnan(b)) ? NAN : fmax(a, b);
}
inline T bi_minimum(T a, T b) {
  return (isnan(a) || isnan(b)) ? NAN : fmin(a, b);
}
inline T bi_xlogy(T a, T b) {
  if (isnan(b)) return NAN;
  if (a == 0) return 0;
  return a * log(b);
}
#define BI_DIV_TRUNC(a, b) trunc((a) / (b))
#define BI_DIV_FLOOR(a, b) bi_div_floor(a, b)
#define BI_REMAINDER(a, b) bi_remainder(a, b)
#define BI_FMOD(a, b) fmod(a, b)
#define BI_POW(a, b) pow(a, b)
#define BI_MAXIMUM(a, b) bi_maximum(a, b)
#define BI_MINIMUM(a, b) bi_minimum(a, b)
#define BI_FMAX(a, b) fmax(a, b)
#define BI_FMIN(a, b) fmin(a, b)
#define BI_ADD(a, b) ((a) + alpha * (b))
#define BI_SUB(a, b) ((a) - alpha * (b))
#define BI_DIV(a, b) ((a) / (b))
#define BI_ATAN2(a, b) atan2(a, b)
#define BI_HYPOT(a, b) hypot(a, b)
#define BI_COPYSIGN(a, b) copysign(a, b)
#define BI_XLOGY(a, b) bi_xlogy(a, b)
#endif
#define BI_MUL(a, b) ((a) * (b))
#define BI_EQ(a, b) ((a) == (b))
#define BI_NE(a, b) ((a) != (b))
#define BI_LT(a, b) ((a) < (b))
#define BI_LE(a, b) ((a) <= (b))
#define BI_GT(a, b) ((a) > (b))
#define BI_GE(a, b) ((a) >= (b))
#define BI_LOGICAL_AND(a, b) (((a) != 0) & ((b) != 0))
#define BI_LOGICAL_OR(a, b) (((a) != 0) | ((b) != 0))
#define BI_LOGICAL_XOR(a, b) (((a) != 0) ^ ((b) != 0))

EW_KERNELS(Binary)
EW_FOREACH_KERNEL(ForEachBinary)
