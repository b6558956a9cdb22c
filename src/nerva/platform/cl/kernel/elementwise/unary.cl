/*
 * Unary: out = OP(x) for one element. OP is the operator's name (ABS, EXP, ...);
 * x arrives in ARG0_DTYPE's register type (float for half); EW_INT marks an
 * integer or boolean argument.
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

#define EW_ARITY 1
#define EW_PARAMS
#define EW_OP(x) NERVA_CAT(UN_, OP)(x)
/* The float forms of ABS, NEG, EXP, EXP2, SQRT, RECIPROCAL and SQUARE also
 * hold for float16 lanes (the host builds EW_VEC16 only for those). */
#define EW_OP16(x) NERVA_CAT(UN_, OP)(x)

/* erfinv for |x| < 1 (single precision, Giles' approximation refined by
 * two Newton steps on erf); +-1 give +-inf, outside NaN. */
inline float nerva_erfinv(float x) {
  if (fabs(x) >= 1.0f) return fabs(x) == 1.0f ? copysign(INFINITY, x) : NAN;
  float w = -log((1.0f - x) * (1.0f + x)), p;
  if (w < 5.0f) {
    w = w - 2.5f;
    p = 2.81022636e-08f;
    p = 3.43273939e-07f + p * w;
    p = -3.5233877e-06f + p * w;
    p = -4.39150654e-06f + p * w;
    p = 0.00021858087f + p * w;
    p = -0.00125372503f + p * w;
    p = -0.00417768164f + p * w;
    p = 0.246640727f + p * w;
    p = 1.50140941f + p * w;
  } else {
    w = sqrt(w) - 3.0f;
    p = -0.000200214257f;
    p = 0.000100950558f + p * w;
    p = 0.00134934322f + p * w;
    p = -0.00367342844f + p * w;
    p = 0.00573950773f + p * w;
    p = -0.0076224613f + p * w;
    p = 0.00943887047f + p * w;
    p = 1.00167406f + p * w;
    p = 2.83297682f + p * w;
  }
  float y = p * x;
  for (int i = 0; i < 2; ++i) {
    y -= (erf(y) - x) / (1.12837916709551257f * exp(-y * y));
  }
  return y;
}

#if EW_INT
#define UN_ABS(x) ((EW_T0)abs(x))
#define UN_CEIL(x) (x)
#define UN_FLOOR(x) (x)
#define UN_ROUND(x) (x)
#define UN_TRUNC(x) (x)
#define UN_SIGN(x) ((EW_T0)(((x) > 0) - ((x) < 0)))
#define UN_BITWISE_NOT(x) BITWISE_NOT_INT(x)
#define UN_ISNAN(x) 0
#define UN_ISINF(x) 0
#define UN_ISFINITE(x) 1
#else
#define UN_ABS(x) fabs(x)
#define UN_CEIL(x) ceil(x)
#define UN_FLOOR(x) floor(x)
#define UN_ROUND(x) rint(x)
#define UN_TRUNC(x) trunc(x)
/* sign(NaN) is 0, as (0 < x) - (x < 0). */
#define UN_SIGN(x) ((EW_T0)(((x) > 0) - ((x) < 0)))
#define UN_ISNAN(x) isnan(x)
#define UN_ISINF(x) isinf(x)
#define UN_ISFINITE(x) isfinite(x)
#endif
/* bool (BOOL_ARG set by the host) negates logically, integers bit by bit. */
#if defined(BOOL_ARG) && BOOL_ARG
#define BITWISE_NOT_INT(x) ((EW_T0)((x) == 0))
#else
#define BITWISE_NOT_INT(x) ((EW_T0)~(x))
#endif
#define UN_NEG(x) (-(x))
#define UN_EXP(x) NERVA_EXP(x)
#define UN_EXP2(x) NERVA_EXP2(x)
#define UN_EXPM1(x) expm1(x)
#define UN_LOG(x) log(x)
#define UN_LOG2(x) log2(x)
#define UN_LOG10(x) log10(x)
#define UN_LOG1P(x) log1p(x)
#define UN_SQRT(x) sqrt(x)
#define UN_RSQRT(x) (1.0f / sqrt(x))
#define UN_SIN(x) sin(x)
#define UN_COS(x) cos(x)
#define UN_TAN(x) tan(x)
#define UN_ASIN(x) asin(x)
#define UN_ACOS(x) acos(x)
#define UN_ATAN(x) atan(x)
#define UN_SINH(x) sinh(x)
#define UN_COSH(x) cosh(x)
#define UN_TANH(x) tanh(x)
#define UN_ASINH(x) asinh(x)
#define UN_ACOSH(x) acosh(x)
#define UN_ATANH(x) atanh(x)
#define UN_ERF(x) erf(x)
#define UN_ERFC(x) erfc(x)
#define UN_ERFINV(x) nerva_erfinv(x)
#define UN_FRAC(x) ((x) - trunc(x))
#define UN_RECIPROCAL(x) (1.0f / (x))
#define UN_SQUARE(x) ((x) * (x))
#define UN_LGAMMA(x) lgamma(x)
#define UN_LOGICAL_NOT(x) ((x) == 0)

EW_KERNELS(Unary)
EW_FOREACH_KERNEL(ForEachUnary)
