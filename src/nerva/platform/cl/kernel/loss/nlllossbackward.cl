/* NllLossBackward: grad_input (outer, classes, inner) is -w[c] g at the
 * target class c of each item and 0 elsewhere, g the item's grad_output
 * (go_step 1) or the single one (go_step 0), divided by the total weight
 * after 'mean'. Ignored and out-of-range targets give a zero row. */
__kernel void nll_backward(long n LOSS_TENSOR(go), long go_step LOSS_TENSOR(tw), int mean
                           LOSS_TENSOR(gi) LOSS_TENSOR(tg) LOSS_W_PARAMS, long classes,
                           long inner, long ignore_index) {
  const long e = get_global_id(0);
  if (e >= n) return;
  const long k = e % inner;
  const long c = (e / inner) % classes;
  const long item = e / (inner * classes) * inner + k;
  const long t = LOSS_TARGET(item);
  float g = 0.0f;
  if (t == c && t != ignore_index) {
    g = -LOSS_WEIGHT(c) * LOSS_LOAD(go, item * go_step);
    if (mean) g /= LOSS_LOAD(tw, 0);
  }
  LOSS_STORE(gi, e, g);
}
