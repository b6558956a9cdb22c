/*
 * Scatter (torch.scatter / scatter_reduce along one dimension). Both kernels
 * walk index's shape with the table of ix_walk: a = index strides, b = src
 * strides, c = out strides (out is contiguous, dim left out). An index
 * outside [0, dsize) is skipped: nothing is written for it.
 */
__kernel void scatter_replace(IX_PARAM(src), IX_PARAM(idx), int is64, IX_PARAM(out),
                              __global const long *m, ulong n, long dsize, long dstride) {
  const ulong i = get_global_id(0);
  if (i >= n) return;
  long ia, ib, ic, cd;
  ix_walk(m, i, &ia, &ib, &ic, &cd);
  const long v = ix_fix(ix_load_index(idx_ptr + idx_off, ia, is64), dsize, 0);
  if (v < 0) return;
  VSTORE(DTYPE, 1, VLOAD(DTYPE, 1, IX_BASE(src, DTYPE) + ib), IX_BASE(out, DTYPE) + ic + v * dstride);
}

/* The reductions: into the scratch of the accumulation frame. */
__kernel void Scatter(IX_PARAM(src), IX_PARAM(idx), int is64, __global ACC_T *acc,
                      __global int *count, int counted, int op, __global const long *m, ulong n,
                      long dsize, long dstride) {
  const ulong i = get_global_id(0);
  if (i >= n) return;
  long ia, ib, ic, cd;
  ix_walk(m, i, &ia, &ib, &ic, &cd);
  const long v = ix_fix(ix_load_index(idx_ptr + idx_off, ia, is64), dsize, 0);
  if (v < 0) return;
  ix_accumulate(acc, count, counted, ic + v * dstride, IX_LOAD_ACC(IX_BASE(src, DTYPE), ib), op);
}
