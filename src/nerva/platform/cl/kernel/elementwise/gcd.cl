/*
 * Gcd: the greatest common divisor of |a| and |b| by Euclid's algorithm
 * (gcd(0, 0) = 0; the smallest value keeps its sign, as in PyTorch).
 */
// #include "common.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS

inline EW_T0 gcd_one(EW_T0 a, EW_T0 b) {
  a = a < 0 ? (EW_T0)(0 - a) : a;
  b = b < 0 ? (EW_T0)(0 - b) : b;
  while (a != 0) {
    const EW_T0 c = a;
    a = (EW_T0)(b % a);
    b = c;
  }
  return b;
}
#define EW_OP(a, b) gcd_one(a, b)

EW_KERNELS(Gcd)
