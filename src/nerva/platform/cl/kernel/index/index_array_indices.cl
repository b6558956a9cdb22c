/* IndexWithIndicesArray: out[i] = input[offset of result element i] (see
 * ix_array_offset); 0 where an index is out of range. */
__kernel void IndexWithIndicesArray(IX_PARAM(in), IX_PARAM(out), __global const long *m, ulong n,
                                    IX_SLOT_PARAMS) {
  const ulong i = get_global_id(0);
  if (i >= n) return;
  __global uchar *slots[8] = IX_SLOT_BASES;
  const long at = ix_array_offset(m, i, slots);
  IX_BASE(out, DTYPE)[i] = at < 0 ? (DTYPE)0 : IX_BASE(in, DTYPE)[at];
}
