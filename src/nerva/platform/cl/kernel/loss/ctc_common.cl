/*
 * Shared pieces of the CTC programs. log_probs is (T, N, C) of DTYPE;
 * targets (DTYPE_T) are padded (N, S) when `padded`, else concatenated;
 * input_lengths and target_lengths are DTYPE_L. The extended target of a
 * sample of L labels has K' = 2L + 1 entries: blanks at even s, label s / 2
 * at odd s. The alpha / beta tables (float) are (N, T, K). Device-side bounds:
 * an input length is clamped to [0, T]; a sample whose target length is
 * negative, whose 2L + 1 exceeds K, whose labels run past the targets, or
 * that has a label outside [0, C), reads nothing more and gets a NaN loss.
 */
#define CTC_LP(t, c) LOSS_LOAD(lp, ((long)(t) * batch + n) * classes + (c))
#define CTC_ROW(tab, t) ((tab) + ((long)n * steps + (t)) * width)

inline float ctc_lse2(float a, float b) {
  const float m = fmax(a, b);
  return m == -INFINITY ? -INFINITY : m + log(exp(a - m) + exp(b - m));
}
inline float ctc_lse3(float a, float b, float c) {
  const float m = fmax(fmax(a, b), c);
  return m == -INFINITY ? -INFINITY : m + log(exp(a - m) + exp(b - m) + exp(c - m));
}

#define CTC_PARAMS                                                             \
  __global uchar *lp_ptr, ulong lp_off LOSS_TENSOR(tg) LOSS_TENSOR(il) LOSS_TENSOR(tl), long steps, \
      long batch, long classes, long blank, int padded, long max_s, long total_targets, \
      __global uchar *alpha_ptr, ulong alpha_off, long width
/* The float table of a LOSS_TENSOR argument. */
#define CTC_TABLE(name) LOSS_PTR(float, name##_ptr, name##_off)
#define CTC_LEN(name, i) ((long)LOSS_PTR(DTYPE_L, name##_ptr, name##_off)[i])

/* One sample's view: its input and target lengths, the offset of its labels
 * and whether it is valid (see above). */
typedef struct {
  long len_t, len_l, offset;
  int valid;
} ctc_sample;

inline ctc_sample ctc_sample_of(long n LOSS_TENSOR(tg) LOSS_TENSOR(il) LOSS_TENSOR(tl),
                                long steps, long classes, int padded, long max_s,
                                long total_targets, long width) {
  ctc_sample q;
  q.len_t = clamp(CTC_LEN(il, n), 0L, steps);
  q.len_l = CTC_LEN(tl, n);
  q.offset = n * max_s;
  if (!padded) {
    q.offset = 0;
    for (long m = 0; m < n; ++m) q.offset += max(CTC_LEN(tl, m), 0L);
  }
  q.valid = q.len_l >= 0 && 2 * q.len_l + 1 <= width &&
            q.offset + q.len_l <= (padded ? (n + 1) * max_s : total_targets);
  if (padded) q.valid = q.valid && q.len_l <= max_s;
  for (long j = 0; q.valid && j < q.len_l; ++j) {
    const long c = (long)LOSS_PTR(DTYPE_T, tg_ptr, tg_off)[q.offset + j];
    q.valid = c >= 0 && c < classes;
  }
  if (!q.valid) q.len_l = 0;
  return q;
}
#define CTC_SAMPLE(n) \
  ctc_sample_of(n, tg_ptr, tg_off, il_ptr, il_off, tl_ptr, tl_off, steps, classes, padded, max_s, total_targets, width)

/* -log of the paths through alpha that end the sample's target. */
inline float ctc_nll(ctc_sample q, __global const float* last) {
  const long kp = 2 * q.len_l + 1;
  if (q.len_t == 0) return q.len_l == 0 ? 0.0f : INFINITY;
  return -ctc_lse2(last[kp - 1], kp >= 2 ? last[kp - 2] : -INFINITY);
}

/* The label of extended position s. */
#define CTC_LABEL(q, s) \
  (((s) & 1) ? (long)LOSS_PTR(DTYPE_T, tg_ptr, tg_off)[(q).offset + (s) / 2] : blank)
