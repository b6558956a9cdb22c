/* EmbeddingBagBackward: grad_weight rows accumulate the bag gradients in a
 * float scratch. Sum and mean walk (position j, column d): the bag of j
 * gives grad[bag][d], times per_sample_weights[j] (sum) or over the bag's
 * size (mean). Max walks (bag, d): the row max_indices[bag][d] receives
 * grad[bag][d]. scale_grad divides by the row's frequency. Rows outside
 * [0, rows), padding_idx and positions without a bag are skipped. */
__kernel void EmbeddingBagBackward(IX_PARAM(grad), IX_PARAM(idx), int is64, IX_PARAM(o2b),
                                   int o2b64, long o2b_len, IX_PARAM(off), int off64, long noff,
                                   IX_PARAM(maxi), int max64, IX_PARAM(psw), int has_psw,
                                   __global const int *freq, __global const int *bag_size,
                                   __global float *acc, ulong n, ulong dim, long rows, long bags,
                                   int mode, int scale, long padding) {
  const ulong i = get_global_id(0);
  if (i >= n) return;
  const ulong p = i / dim, d = i - p * dim;
  long r, b;
  float g;
  if (mode == 2) {
    b = (long)p;
    r = ix_fix(ix_load_index(maxi_ptr + maxi_off, i, max64), rows, 0);
  } else {
    r = ix_fix(ix_load_index(idx_ptr + idx_off, p, is64), rows, 0);
    b = ebb_bag(o2b_ptr + o2b_off, o2b64, o2b_len, off_ptr + off_off, off64, noff, bags, (long)p);
  }
  if (r < 0 || r == padding || b < 0) return;
  g = VLOAD(DTYPE, 1, IX_BASE(grad, DTYPE) + b * (long)dim + d);
  if (mode == 0 && has_psw) g *= VLOAD(DTYPE, 1, IX_BASE(psw, DTYPE) + p);
  if (mode == 1) g /= (float)max(bag_size[b], 1);
  if (scale) g /= (float)max(freq[r], 1);
  ix_atomic(acc + r * (long)dim + d, g, IX_SUM);
}

__kernel void embedding_bag_backward_store(__global const float *acc, IX_PARAM(out), ulong n) {
  const ulong i = get_global_id(0);
  if (i >= n) return;
  VSTORE(DTYPE, 1, acc[i], IX_BASE(out, DTYPE) + i);
}
