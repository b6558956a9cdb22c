/* EmbeddingBagBackward, first passes: the float scratch of grad_weight and the
 * counts start at 0, then every valid (in range, not padding) index counts
 * once towards its row's frequency and its bag's size. */
__kernel void embedding_bag_backward_pre(__global float *acc, __global int *freq,
                                         __global int *bag_size, ulong n, long rows, long bags) {
  const ulong i = get_global_id(0);
  if (i < n) acc[i] = 0.0f;
  if ((long)i < rows) freq[i] = 0;
  if ((long)i < bags) bag_size[i] = 0;
}

__kernel void embedding_bag_backward_count(IX_PARAM(idx), int is64, IX_PARAM(o2b), int o2b64,
                                           long o2b_len, IX_PARAM(off), int off64, long noff,
                                           __global int *freq, __global int *bag_size, long len,
                                           long rows, long bags, long padding) {
  const long j = get_global_id(0);
  if (j >= len) return;
  const long r = ix_fix(ix_load_index(idx_ptr + idx_off, j, is64), rows, 0);
  if (r < 0 || r == padding) return;
  atomic_inc((volatile __global int *)freq + r);
  const long b = ebb_bag(o2b_ptr + o2b_off, o2b64, o2b_len, off_ptr + off_off, off64, noff, bags, j);
  if (b >= 0) atomic_inc((volatile __global int *)bag_size + b);
}
