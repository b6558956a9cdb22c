/* IndexPut on one dimension: values are dense (outer, count, inner) and go to
 * out slice index[j] (negative indices count from the end; others outside
 * [0, dsize) are skipped). IndexPut overwrites; index_put_add accumulates in
 * the scratch of the accumulation frame. */
__kernel void IndexPut(IX_PARAM(val), IX_PARAM(idx), int is64, IX_PARAM(out), ulong n,
                       ulong inner, ulong len, long dsize) {
  const ulong i = get_global_id(0);
  if (i >= n) return;
  ulong o, j, k;
  ix_fold(i, inner, len, &o, &j, &k);
  const long v = ix_fix(ix_load_index(idx_ptr + idx_off, j, is64), dsize, 1);
  if (v < 0) return;
  VSTORE(DTYPE, 1, VLOAD(DTYPE, 1, IX_BASE(val, DTYPE) + i),
         IX_BASE(out, DTYPE) + (o * dsize + v) * inner + k);
}

__kernel void index_put_add(IX_PARAM(val), IX_PARAM(idx), int is64, __global ACC_T *acc,
                            __global int *count, ulong n, ulong inner, ulong len, long dsize) {
  const ulong i = get_global_id(0);
  if (i >= n) return;
  ulong o, j, k;
  ix_fold(i, inner, len, &o, &j, &k);
  const long v = ix_fix(ix_load_index(idx_ptr + idx_off, j, is64), dsize, 1);
  if (v < 0) return;
  ix_accumulate(acc, count, 0, (o * dsize + v) * inner + k,
                IX_LOAD_ACC(IX_BASE(val, DTYPE), i), IX_SUM);
}
