/* IndexPutWithIndicesArray: values (dense in the result shape) go to the
 * output at the offset of each result element (see ix_array_offset; out is
 * dense with the input's shape, whose strides the table holds). An element
 * with an index out of range is skipped. */
__kernel void IndexPutWithIndicesArray(IX_PARAM(val), IX_PARAM(out), __global const long *m,
                                       ulong n, IX_SLOT_PARAMS) {
  const ulong i = get_global_id(0);
  if (i >= n) return;
  __global uchar *slots[8] = IX_SLOT_BASES;
  const long at = ix_array_offset(m, i, slots);
  if (at < 0) return;
  VSTORE(DTYPE, 1, VLOAD(DTYPE, 1, IX_BASE(val, DTYPE) + i), IX_BASE(out, DTYPE) + at);
}

__kernel void index_put_array_add(IX_PARAM(val), __global ACC_T *acc, __global int *count,
                                  __global const long *m, ulong n, IX_SLOT_PARAMS) {
  const ulong i = get_global_id(0);
  if (i >= n) return;
  __global uchar *slots[8] = IX_SLOT_BASES;
  const long at = ix_array_offset(m, i, slots);
  if (at < 0) return;
  ix_accumulate(acc, count, 0, at, IX_LOAD_ACC(IX_BASE(val, DTYPE), i), IX_SUM);
}
