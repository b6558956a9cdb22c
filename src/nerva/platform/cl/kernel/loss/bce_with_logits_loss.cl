/* BCEWithLogitsLoss: w ((1 - t) x + (1 + (p - 1) t) softplus(-x)) with
 * p the positive-class weight (1 when has_pw is 0), softplus(z) computed as
 * max(z, 0) + log1p(exp(-|z|)) so large logits neither overflow nor cancel. */
#define LOSS_PARAMS LOSS_XT_PARAMS LOSS_W_PARAMS LOSS_TENSOR(pw), int has_pw
#define LOSS_ARGS LOSS_XT_ARGS LOSS_W_ARGS, pw_ptr, pw_off, has_pw
inline float loss_item(long i, float* weight LOSS_PARAMS) {
  const float x = LOSS_LOAD(x, i);
  const float t = LOSS_LOAD(t, i);
  const float softplus = fmax(-x, 0.0f) + log1p(exp(-fabs(x)));
  const float log_weight = has_pw ? 1.0f + (LOSS_LOAD(pw, i) - 1.0f) * t : 1.0f;
  *weight = 1.0f;
  return LOSS_WEIGHT(i) * ((1.0f - t) * x + log_weight * softplus);
}
LOSS_FORWARD_KERNELS
