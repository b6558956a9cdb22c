/* SoftMarginLossBackward: d log(1 + exp(-t x)) / dx = -t / (1 + exp(t x)). */
#define LOSS_PARAMS LOSS_XT_PARAMS
#define LOSS_ARGS LOSS_XT_ARGS
inline float loss_grad(long i LOSS_PARAMS) {
  const float t = LOSS_LOAD(t, i);
  return -t / (1.0f + exp(t * LOSS_LOAD(x, i)));
}
LOSS_BACKWARD_KERNELS
