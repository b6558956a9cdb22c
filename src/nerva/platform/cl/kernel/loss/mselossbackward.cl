/* MseLossBackward: d (x - t)^2 / dx = 2 (x - t). */
#define LOSS_PARAMS LOSS_XT_PARAMS
#define LOSS_ARGS LOSS_XT_ARGS
inline float loss_grad(long i LOSS_PARAMS) {
  return 2.0f * (LOSS_LOAD(x, i) - LOSS_LOAD(t, i));
}
LOSS_BACKWARD_KERNELS
