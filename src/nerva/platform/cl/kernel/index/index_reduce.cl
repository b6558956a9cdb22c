/* IndexReduce (torch.index_reduce): source is dense (outer, count, inner);
 * slice j reduces into input slice index[j] (negative indices count from the
 * end; others outside [0, dsize) are skipped) in the accumulation scratch. */
__kernel void IndexReduce(IX_PARAM(src), IX_PARAM(idx), int is64, __global ACC_T *acc,
                          __global int *count, int counted, int op, ulong n, ulong inner,
                          ulong len, long dsize) {
  const ulong i = get_global_id(0);
  if (i >= n) return;
  ulong o, j, k;
  ix_fold(i, inner, len, &o, &j, &k);
  const long v = ix_fix(ix_load_index(idx_ptr + idx_off, j, is64), dsize, 1);
  if (v < 0) return;
  ix_accumulate(acc, count, counted, (o * dsize + v) * inner + k,
                IX_LOAD_ACC(IX_BASE(src, DTYPE), i), op);
}
