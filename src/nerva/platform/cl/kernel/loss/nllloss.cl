/* NllLoss over input (outer, classes, inner) and class-index targets
 * (outer * inner items, DTYPE_T): -w[c] x[n, c, k] for target c, weighing
 * w[c] in the mean. A target equal to ignore_index gives 0 and weighs
 * nothing; any other target outside [0, classes) reads nothing and gives NaN
 * (its loss, and the reduced loss and total weight it enters). */
#define LOSS_CLASS_PARAMS \
  LOSS_TENSOR(x) LOSS_TENSOR(tg) LOSS_W_PARAMS, long classes, long inner, long ignore_index
#define LOSS_CLASS_ARGS , x_ptr, x_off, tg_ptr, tg_off, w_ptr, w_off, has_w, classes, inner, ignore_index
#define LOSS_TARGET(i) ((long)LOSS_PTR(DTYPE_T, tg_ptr, tg_off)[i])
#define LOSS_PARAMS LOSS_CLASS_PARAMS
#define LOSS_ARGS LOSS_CLASS_ARGS
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
  const float w = LOSS_WEIGHT(c);
  *weight = w;
  /* Without trailing dimensions the item's row starts at i * classes (no divisions). */
  const long at = inner == 1 ? i * classes + c : (i / inner) * classes * inner + c * inner + i % inner;
  return -w * LOSS_LOAD(x, at);
}
LOSS_FORWARD_KERNELS
