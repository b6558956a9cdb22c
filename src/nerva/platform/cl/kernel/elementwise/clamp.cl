/*
 * Clamp: out = min(max(x, lo), hi) with tensor bounds, as std::max/std::min
 * (a lower bound above the upper gives the upper). A NaN in x or in a present
 * bound gives NaN. HAS_MIN and HAS_MAX say which bounds are present.
 */
// #include "common.h"
// #include "elementwise.h"

#define EW_ARITY 3
#define EW_PARAMS
#define EW_OP(x, lo, hi) clamp_one(x, lo, hi)

inline EW_T0 clamp_one(EW_T0 x, EW_T0 lo, EW_T0 hi) {
#if !EW_INT
  if (isnan(x) || (HAS_MIN && isnan(lo)) || (HAS_MAX && isnan(hi))) return NAN;
#endif
#if HAS_MIN
  x = x < lo ? lo : x;
#endif
#if HAS_MAX
  x = hi < x ? hi : x;
#endif
  return x;
}

EW_KERNELS(Clamp)
