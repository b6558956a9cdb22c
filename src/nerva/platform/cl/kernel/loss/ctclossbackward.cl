/* CTCLossBackward, second pass: one work item per (c, n, t) of grad
 * (T, N, C): g_n (exp(lp) - exp(log sum_{s: label s = c} alpha beta + nll -
 * lp)) for t below the sample's input length, 0 past it. g_n is grad_output
 * (per sample, or the single value, over N and the clamped target length
 * after 'mean'); 0 for an infinite nll under zero_infinity. nll is found
 * again from alpha. */
// #include "ctc_common.cl"

__kernel void ctc_grad(CTC_PARAMS, __global const uchar* beta_ptr, ulong beta_off LOSS_TENSOR(go),
                       int reduction, int zero_infinity LOSS_TENSOR(gi)) {
  const long c = get_global_id(0);
  const long n = get_global_id(1);
  const long t = get_global_id(2);
  if (c >= classes) return;
  const long at = (t * batch + n) * classes + c;
  const ctc_sample q = CTC_SAMPLE(n);
  __global const float* alpha = CTC_TABLE(alpha);
  const float nll = ctc_nll(q, CTC_ROW(alpha, max(q.len_t - 1, 0L)));
  float g = reduction == 0 ? LOSS_LOAD(go, n) : LOSS_LOAD(go, 0);
  if (reduction == 1) g /= (float)max(CTC_LEN(tl, n), 1L) * (float)batch;
  if (t >= q.len_t || (zero_infinity && isinf(nll))) {
    LOSS_STORE(gi, at, 0.0f);
    return;
  }
  const long kp = 2 * q.len_l + 1;
  __global const float* a = CTC_ROW(alpha, t);
  __global const float* b = CTC_ROW(LOSS_PTR(const float, beta_ptr, beta_off), t);
  float m = -INFINITY, sum = 0.0f;
  for (long s = c == blank ? 0 : 1; s < kp; s += 2) {
    if (CTC_LABEL(q, s) != c) continue;
    const float v = a[s] + b[s];
    if (v == -INFINITY) continue;
    if (v > m) {
      sum = sum * exp(m - v) + 1.0f;
      m = v;
    } else {
      sum += exp(v - m);
    }
  }
  const float lp = CTC_LP(t, c);
  const float lcab = m == -INFINITY ? -INFINITY : m + log(sum);
  const float grad = exp(lp) - exp(lcab + nll - lp);
  LOSS_STORE(gi, at, q.valid ? grad * g : NAN);
}
