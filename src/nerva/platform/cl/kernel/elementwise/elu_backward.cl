/*
 * ELUBackward (torch elu_backward): with v the forward's input,
 *   v <= 0 ? g * input_scale * negcoef * e^(v * input_scale) : g * poscoef,
 * or with v its output (is_result != 0),
 *   v <= 0 ? g * input_scale * (v + negcoef) : g * poscoef,
 * where negcoef = alpha * scale and poscoef = scale.
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

#define EW_ARITY 2
#define EW_PARAMS , float negcoef, float poscoef, float input_scale, float is_result
inline float elu_grad(float g, float v, float negcoef, float poscoef, float input_scale,
                      float is_result) {
  const float neg = is_result != 0.0f ? input_scale * (v + negcoef)
                                      : input_scale * negcoef * NERVA_EXP(v * input_scale);
  return v <= 0.0f ? g * neg : g * poscoef;
}
#define EW_OP(g, v) elu_grad(g, v, negcoef, poscoef, input_scale, is_result)

EW_KERNELS(ELUBackward)
