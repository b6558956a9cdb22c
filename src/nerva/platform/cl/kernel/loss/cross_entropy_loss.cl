/* CrossEntropyLoss over logits (outer, classes, inner) and class-index
 * targets, with label smoothing s: (1 - s) (-w[c] lp[c]) + s / classes *
 * sum_k -w[k] lp[k], lp the log-softmax of the item's logits, found in one
 * pass with a running maximum. Weights, ignore_index and targets outside
 * [0, classes) as NllLoss. */
#define LOSS_CLASS_PARAMS \
  LOSS_TENSOR(x) LOSS_TENSOR(tg) LOSS_W_PARAMS, long classes, long inner, long ignore_index
#define LOSS_CLASS_ARGS , x_ptr, x_off, tg_ptr, tg_off, w_ptr, w_off, has_w, classes, inner, ignore_index
#define LOSS_TARGET(i) ((long)LOSS_PTR(DTYPE_T, tg_ptr, tg_off)[i])
#define LOSS_PARAMS LOSS_CLASS_PARAMS, float smoothing
#define LOSS_ARGS LOSS_CLASS_ARGS, smoothing
inline float loss_item(long i, float* weight LOSS_PARAMS) {
  const long c = LOSS_TARGET(i);
  if (c == ignore_index) {
    *weight = 0.0f;
    return 0.0f;
  }
  if (c < 0 || c >= classes) {
    *weight = NAN;
    return NAN;
  }
  const long base = (i / inner) * classes * inner + i % inner;
  float m = -INFINITY, s = 0.0f, wx = 0.0f, ws = 0.0f;
  for (long k = 0; k < classes; ++k) {
    const float v = LOSS_LOAD(x, base + k * inner);
    if (v > m) {
      s = s * exp(m - v) + 1.0f;
      m = v;
    } else {
      s += exp(v - m);
    }
    if (smoothing != 0.0f) {
      const float wk = LOSS_WEIGHT(k);
      wx += wk * v;
      ws += wk;
    }
  }
  const float lse = m + log(s);
  const float w = LOSS_WEIGHT(c);
  *weight = w;
  const float nll = -w * (LOSS_LOAD(x, base + c * inner) - lse);
  if (smoothing == 0.0f) return nll;
  return (1.0f - smoothing) * nll - smoothing / (float)classes * (wx - ws * lse);
}
LOSS_FORWARD_KERNELS
