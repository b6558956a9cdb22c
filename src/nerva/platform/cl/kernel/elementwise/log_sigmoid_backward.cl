/*
 * LogSigmoidBackward: g * sigmoid(-x), written with z = e^-|x| so that it neither
 * overflows nor cancels: x < 0 ? g * (1 - z / (1 + z)) : g * z / (1 + z).
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS
inline float log_sigmoid_grad(float g, float x) {
  const float z = NERVA_EXP(-fabs(x));
  const float t = z / (1.0f + z);
  return g * (x < 0.0f ? 1.0f - t : t);
}
#define EW_OP(g, x) log_sigmoid_grad(g, x)

EW_KERNELS(LogSigmoidBackward)
