/* BinaryCrossEntropyBackward: w (x - t) / max(x (1 - x), 1e-12). */
#define LOSS_PARAMS LOSS_XT_PARAMS LOSS_W_PARAMS
#define LOSS_ARGS LOSS_XT_ARGS LOSS_W_ARGS
inline float loss_grad(long i LOSS_PARAMS) {
  const float x = LOSS_LOAD(x, i);
  return LOSS_WEIGHT(i) * (x - LOSS_LOAD(t, i)) / fmax((1.0f - x) * x, 1e-12f);
}
LOSS_BACKWARD_KERNELS
