/* EmbeddingBag: out[b][d] combines weight[indices[j]][d] over the bag's
 * positions j. Bag b spans [offsets[b], offsets[b + 1]) (the last one ending
 * at len unless include_last_offset), or [b * fixed, (b + 1) * fixed) when
 * `fixed` > 0 (2-D indices); bounds are clamped to [0, len]. Indices outside
 * [0, rows) and padding_idx are skipped; an empty bag gives 0.
 * mode: 0 sum (times per_sample_weights when has_psw), 1 mean, 2 max. */
__kernel void EmbeddingBag(IX_PARAM(w), IX_PARAM(idx), int is64, IX_PARAM(off), int off64,
                           IX_PARAM(psw), int has_psw, IX_PARAM(out), ulong n, ulong dim,
                           long rows, long len, long noff, long fixed, int last_offset, int mode,
                           long padding) {
  const ulong i = get_global_id(0);
  if (i >= n) return;
  const ulong b = i / dim, d = i - b * dim;
  long start, end;
  if (fixed > 0) {
    start = (long)b * fixed;
    end = start + fixed;
  } else {
    start = ix_load_index(off_ptr + off_off, b, off64);
    end = (long)b + 1 < noff ? ix_load_index(off_ptr + off_off, b + 1, off64) : len;
  }
  start = clamp(start, 0L, len);
  end = clamp(end, start, len);
  __global const DTYPE *wt = IX_BASE(w, DTYPE);
  float acc = mode == 2 ? -INFINITY : 0.0f;
  int count = 0;
  for (long j = start; j < end; ++j) {
    const long r = ix_fix(ix_load_index(idx_ptr + idx_off, j, is64), rows, 0);
    if (r < 0 || r == padding) continue;
    float v = VLOAD(DTYPE, 1, wt + r * (long)dim + d);
    if (has_psw) v *= VLOAD(DTYPE, 1, IX_BASE(psw, DTYPE) + j);
    if (mode == 2) {
      acc = (isnan(v) || v > acc) ? v : acc;
    } else {
      acc += v;
    }
    ++count;
  }
  if (count == 0) acc = 0.0f;
  if (mode == 1 && count > 0) acc /= (float)count;
  VSTORE(DTYPE, 1, acc, IX_BASE(out, DTYPE) + i);
}
