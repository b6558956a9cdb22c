/* SoftMarginLoss: log(1 + exp(-t x)) per element, as max(z, 0) +
 * log1p(exp(-|z|)) with z = -t x, which neither overflows nor loses small values. */
#define LOSS_PARAMS LOSS_XT_PARAMS
#define LOSS_ARGS LOSS_XT_ARGS
inline float loss_item(long i, float* weight LOSS_PARAMS) {
  const float z = -LOSS_LOAD(t, i) * LOSS_LOAD(x, i);
  *weight = 1.0f;
  return fmax(z, 0.0f) + log1p(exp(-fabs(z)));
}
LOSS_FORWARD_KERNELS
