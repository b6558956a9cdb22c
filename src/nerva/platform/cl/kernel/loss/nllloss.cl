/* NllLoss over input (outer, classes, inner) and class-index targets
 * (outer * inner items, DTYPE_T): -w[c] x[n, c, k] for target c, weighing
 * w[c] in the mean. A target equal to ignore_index gives 0 and weighs
 * nothing; any other target outside [0, classes) reads nothing and gives NaN
 * (its loss, and the reduced loss and total weight it enters). */
#define LOSS_PARAMS LOSS_CLASS_PARAMS
#define LOSS_ARGS LOSS_CLASS_ARGS
inline float loss_item(long i, float* weight LOSS_PARAMS) {
  LOSS_CLASS_TARGET(c, i)
  const float w = LOSS_WEIGHT(c);
  *weight = w;
  /* Without trailing dimensions the item's row starts at i * classes (no divisions). */
  const long at = inner == 1 ? i * classes + c : (i / inner) * classes * inner + c * inner + i % inner;
  return -w * LOSS_LOAD(x, at);
}
#ifdef NERVA_HOST_CPU_DEVICE
LOSS_ITEMS16_FROM_ITEMS
/* Sixteen whole rows of x (inner 1) at a time: rows of two classes are two
 * float16 loads split into even and odd lanes; other rows read one element
 * per lane. Lanes whose target is ignored or out of range read row 0's first
 * element and are replaced by 0 or NaN. */
inline float16 loss_vec16(long i, float16* weight LOSS_PARAMS) {
  if (inner != 1) return loss_items16(i, weight LOSS_ARGS);
  const long16 c = convert_long16(VLOAD(DTYPE_T, 16, LOSS_PTR(DTYPE_T, tg_ptr, tg_off) + i));
  const int16 ignored = convert_int16(c == (long16)(ignore_index));
  const int16 bad = convert_int16(c < 0 || c >= (long16)(classes)) & ~ignored;
  const long16 k = select(c, (long16)(0), convert_long16(ignored | bad));
  float16 v;
  if (classes == 2) {
    const float16 a = LOSS_LOAD16(x, 2 * i), b = LOSS_LOAD16(x, 2 * i + 16);
    v = select((float16)(a.even, b.even), (float16)(a.odd, b.odd), convert_int16(k == 1));
  } else {
    const long16 at = (long16)(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15) * classes + k;
    __global const DTYPE* row = LOSS_PTR(DTYPE, x_ptr, x_off) + i * classes;
    float lanes[16];
    _Pragma("unroll") for (int u = 0; u < 16; ++u) lanes[u] = CONVERT(float, 1, VLOAD(DTYPE, 1, row + at[u]));
    v = vload16(0, lanes);
  }
  float16 w = 1.0f;
  if (has_w) {
    float lanes[16];
    _Pragma("unroll") for (int u = 0; u < 16; ++u) lanes[u] = LOSS_LOAD(w, k[u]);
    w = vload16(0, lanes);
  }
  w = select(select(w, (float16)(NAN), bad), (float16)(0.0f), ignored);
  *weight = w;
  return select(-w * v, w, ignored | bad);
}
#endif
LOSS_FORWARD_KERNELS_VEC
