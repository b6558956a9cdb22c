/* CTCLossBackward, first pass: one group per sample runs the log-space beta
 * recursion backwards from the sample's last input step into log_beta
 * (same layout as log_alpha; -inf where no suffix alignment exists). */
// #include "ctc_common.cl"

__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void ctc_beta(CTC_PARAMS) {
  const long n = get_group_id(0);
  const int lid = get_local_id(0);
  const ctc_sample q = CTC_SAMPLE(n);
  const long kp = 2 * q.len_l + 1;
  __global float* beta = CTC_TABLE(alpha);
  for (long t = steps - 1; t >= 0; --t) {
    __global float* row = CTC_ROW(beta, t);
    __global const float* next = CTC_ROW(beta, t + 1 < steps ? t + 1 : t);
    for (long s = lid; s < width; s += BLOCK_SIZE) {
      float v = -INFINITY;
      if (s < kp && t < q.len_t) {
        const long l = CTC_LABEL(q, s);
        if (t == q.len_t - 1) {
          v = s >= kp - 2 ? CTC_LP(t, l) : -INFINITY;
        } else {
          const float b2 = (s & 1) && s + 2 < kp && l != CTC_LABEL(q, s + 2) ? next[s + 2] : -INFINITY;
          v = ctc_lse3(next[s], s + 1 < kp ? next[s + 1] : -INFINITY, b2) + CTC_LP(t, l);
        }
      }
      row[s] = v;
    }
    barrier(CLK_GLOBAL_MEM_FENCE);
  }
}
