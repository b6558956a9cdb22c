/* MseLoss: (x - t)^2 per element. */
#define LOSS_PARAMS LOSS_XT_PARAMS
#define LOSS_ARGS LOSS_XT_ARGS
inline float loss_item(long i, float* weight LOSS_PARAMS) {
  const float d = LOSS_LOAD(x, i) - LOSS_LOAD(t, i);
  *weight = 1.0f;
  return d * d;
}
LOSS_FORWARD_KERNELS
