/* CTCLoss forward: one group per sample runs the log-space alpha recursion
 * over time, a barrier between steps, positions s of the extended target
 * shared among the items; row t of alpha holds log alpha_t (entries past
 * 2L + 1 and times past the input length are -inf). nll[n] is the negative
 * log-likelihood (inf when no alignment exists, 0 then under zero_infinity;
 * NaN for an invalid sample). ctc_reduce folds nll into the loss. */
// #include "ctc_common.cl"

__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void ctc_alpha(
    CTC_PARAMS, __global float* nll, int zero_infinity) {
  const long n = get_group_id(0);
  const int lid = get_local_id(0);
  const ctc_sample q = CTC_SAMPLE(n);
  __global float* alpha = CTC_TABLE(alpha);
  const long kp = 2 * q.len_l + 1;
  for (long t = 0; t < steps; ++t) {
    __global float* row = CTC_ROW(alpha, t);
    __global const float* prev = CTC_ROW(alpha, t > 0 ? t - 1 : 0);
    for (long s = lid; s < width; s += BLOCK_SIZE) {
      float v = -INFINITY;
      if (s < kp && t < q.len_t) {
        const long l = CTC_LABEL(q, s);
        if (t == 0) {
          v = s < 2 ? CTC_LP(0, l) : -INFINITY;
        } else {
          const float a2 = (s & 1) && s >= 2 && l != CTC_LABEL(q, s - 2) ? prev[s - 2] : -INFINITY;
          v = ctc_lse3(prev[s], s >= 1 ? prev[s - 1] : -INFINITY, a2) + CTC_LP(t, l);
        }
      }
      row[s] = v;
    }
    barrier(CLK_GLOBAL_MEM_FENCE);
  }
  if (lid == 0) {
    float v = ctc_nll(q, CTC_ROW(alpha, max(q.len_t - 1, 0L)));
    if (!q.valid) v = NAN;
    if (zero_infinity && isinf(v)) v = 0.0f;
    nll[n] = v;
  }
}

/* The loss from nll: nll itself (reduction 0), the mean of
 * nll[n] / max(target_length, 1) (1) or the sum (2). */
#define CTC_SUM_STEP(d, s) ctc_acc[d] += ctc_acc[s];
__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void ctc_reduce(
    __global const float* nll, long batch, int reduction LOSS_TENSOR(tl) LOSS_TENSOR(out)) {
  const int lid = get_local_id(0);
  const int mean = reduction == 1;
  if (reduction == 0) {
    for (long n = lid; n < batch; n += BLOCK_SIZE) LOSS_STORE(out, n, nll[n]);
    return;
  }
  float acc = 0.0f;
  for (long n = lid; n < batch; n += BLOCK_SIZE) {
    acc += mean ? nll[n] / (float)max(CTC_LEN(tl, n), 1L) : nll[n];
  }
  __local float ctc_acc[BLOCK_SIZE];
  ctc_acc[lid] = acc;
  GROUP_TREE_REDUCE(lid, CTC_SUM_STEP)
  if (lid == 0) LOSS_STORE(out, 0, mean ? ctc_acc[0] / (float)batch : ctc_acc[0]);
}
