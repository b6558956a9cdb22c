/* ScatterND (ONNX): update element i belongs to index tuple t = i / slice and
 * to element s = i % slice of the addressed slice. The table m holds
 * [k, data sizes of the first k dims[8], their strides[8]]. Negative indices
 * count from the end; a tuple with an index outside [-size, size) is skipped.
 * op IX_REPLACE writes out directly, the reductions go to the scratch of the
 * accumulation frame. */
__kernel void ScatterND(IX_PARAM(upd), IX_PARAM(idx), int is64, IX_PARAM(out),
                        __global ACC_T *acc, __global int *count, int op,
                        __global const long *m, ulong n, ulong slice) {
  const ulong i = get_global_id(0);
  if (i >= n) return;
  const ulong t = i / slice;
  const int k = (int)m[0];
  long at = (long)(i - t * slice);
  for (int q = 0; q < k; ++q) {
    const long v = ix_fix(ix_load_index(idx_ptr + idx_off, t * k + q, is64), m[1 + q], 1);
    if (v < 0) return;
    at += v * m[9 + q];
  }
  __global DTYPE *src = IX_BASE(upd, DTYPE) + i;
  if (op == IX_REPLACE) {
    VSTORE(DTYPE, 1, VLOAD(DTYPE, 1, src), IX_BASE(out, DTYPE) + at);
  } else {
    ix_accumulate(acc, count, 0, at, IX_LOAD_ACC(src, 0), op);
  }
}
