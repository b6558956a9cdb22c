/* ScatterMean, second pass: every src element adds to the sum and the count of
 * its position (walk as in "scatter.cl"; an index outside [0, dsize) is
 * skipped). */
__kernel void ScatterMean(IX_PARAM(src), IX_PARAM(idx), int is64, __global ACC_T *acc,
                          __global int *count, __global const long *m, ulong n, long dsize,
                          long dstride) {
  const ulong i = get_global_id(0);
  if (i >= n) return;
  long ia, ib, ic, cd;
  ix_walk(m, i, &ia, &ib, &ic, &cd);
  const long v = ix_fix(ix_load_index(idx_ptr + idx_off, ia, is64), dsize, 0);
  if (v < 0) return;
  ix_accumulate(acc, count, 1, ic + v * dstride, IX_LOAD_ACC(IX_BASE(src, DTYPE), ib), IX_SUM);
}
