/*
 * Logit: out = log(z / (1 - z)) with z = x, or x clamped to [eps, 1 - eps]
 * when LOGIT_EPS is set (NaN stays NaN).
 */
// #include "common.h"
// #include "elementwise.h"

#define EW_ARITY 1
#define EW_PARAMS , float eps
#if LOGIT_EPS
#define LOGIT_Z(x) ((x) < eps ? eps : ((x) > 1.0f - eps ? 1.0f - eps : (x)))
#else
#define LOGIT_Z(x) (x)
#endif
inline float logit_one(float x, float eps) {
  const float z = LOGIT_Z(x);
  return log(z / (1.0f - z));
}
#define EW_OP(x) logit_one(x, eps)

EW_KERNELS(Logit)
