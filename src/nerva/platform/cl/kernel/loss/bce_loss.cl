/* BCELoss: -w (t log x + (1 - t) log(1 - x)), each logarithm clamped below
 * at -100 so that x of 0 or 1 gives a finite loss. */
#define LOSS_PARAMS LOSS_XT_PARAMS LOSS_W_PARAMS
#define LOSS_ARGS LOSS_XT_ARGS LOSS_W_ARGS
inline float loss_item(long i, float* weight LOSS_PARAMS) {
  const float x = LOSS_LOAD(x, i);
  const float t = LOSS_LOAD(t, i);
  *weight = 1.0f;
  return -LOSS_WEIGHT(i) * (t * fmax(log(x), -100.0f) + (1.0f - t) * fmax(log(1.0f - x), -100.0f));
}
LOSS_FORWARD_KERNELS
