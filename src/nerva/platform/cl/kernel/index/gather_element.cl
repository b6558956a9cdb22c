/* GatherElement (torch.gather): out[i] = input[i with index[i] on dim]. The
 * table walks index's shape: a = index strides, b unused, c = input strides.
 * An index outside [0, dsize) reads 0. */
__kernel void GatherElement(IX_PARAM(in), IX_PARAM(idx), int is64, IX_PARAM(out),
                            __global const long *m, ulong n, long dsize, long dstride) {
  const ulong i = get_global_id(0);
  if (i >= n) return;
  long ia, ib, ic, cd;
  ix_walk(m, i, &ia, &ib, &ic, &cd);
  const long v = ix_fix(ix_load_index(idx_ptr + idx_off, ia, is64), dsize, 0);
  IX_BASE(out, DTYPE)[i] = v < 0 ? (DTYPE)0 : IX_BASE(in, DTYPE)[ic + v * dstride];
}
