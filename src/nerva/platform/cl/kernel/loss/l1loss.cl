/* L1Loss: |x - t| per element. */
#define LOSS_PARAMS LOSS_XT_PARAMS
#define LOSS_ARGS LOSS_XT_ARGS
inline float loss_item(long i, float* weight LOSS_PARAMS) {
  *weight = 1.0f;
  return fabs(LOSS_LOAD(x, i) - LOSS_LOAD(t, i));
}
LOSS_FORWARD_KERNELS
