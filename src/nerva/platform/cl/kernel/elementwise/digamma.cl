/*
 * Digamma: psi(x) in single precision. psi(+-0) is -+inf, negative integers
 * give NaN, other negative values use the reflection
 * psi(x) = psi(1 - x) - pi / tan(pi * frac(x)); positive values are raised
 * above 10 by psi(x) = psi(x + 1) - 1 / x and finished with the asymptotic
 * series.
 */
// #include "common.h"
// #include "elementwise.h"

#define EW_ARITY 1
#define EW_PARAMS

inline float digamma_positive(float x) {
  float result = 0.0f;
  while (x < 10.0f) {
    result -= 1.0f / x;
    x += 1.0f;
  }
  if (x == 10.0f) return result + 2.25175258906672110764f;
  float y = 0.0f;
  if (x < 1.0e17f) {
    const float z = 1.0f / (x * x);
    float p = 8.33333333333333333333E-2f;
    p = p * z - 2.10927960927960927961E-2f;
    p = p * z + 7.57575757575757575758E-3f;
    p = p * z - 4.16666666666666666667E-3f;
    p = p * z + 3.96825396825396825397E-3f;
    p = p * z - 8.33333333333333333333E-3f;
    p = p * z + 8.33333333333333333333E-2f;
    y = z * p;
  }
  return result + log(x) - 0.5f / x - y;
}

inline float digamma_one(float x) {
  if (x == 0.0f) return copysign(INFINITY, -x);
  if (isnan(x) || x == INFINITY) return x;
  if (x < 0.0f) {
    if (x == trunc(x)) return NAN;
    const float r = x - trunc(x);
#ifdef cl_khr_fp64
    const float reflection = (float)(M_PI / tan(M_PI * (double)r));
#else
    const float reflection = M_PI_F / tan(M_PI_F * r);
#endif
    return digamma_positive(1.0f - x) - reflection;
  }
  return digamma_positive(x);
}
#define EW_OP(x) digamma_one(x)

EW_KERNELS(Digamma)
