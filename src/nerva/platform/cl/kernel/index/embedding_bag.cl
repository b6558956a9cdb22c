/* EmbeddingBag: out[b][d] combines weight[indices[j]][d] over the bag's
 * positions j. Bag b spans [offsets[b], offsets[b + 1]) (the last one ending
 * at len unless include_last_offset), or [b * fixed, (b + 1) * fixed) when
 * `fixed` > 0 (2-D indices); bounds are clamped to [0, len]. Indices outside
 * [0, rows) and padding_idx are skipped; an empty bag gives 0.
 * mode: 0 sum (times per_sample_weights when has_psw), 1 mean, 2 max.
 * Work item g takes columns [16 c, 16 c + 16) of bag b (g = b * chunks + c):
 * it reads the bag's indices once and a whole 16-wide vector of each row. */
#define EB_W 16
#define EB_VEC float16

__kernel void EmbeddingBag(IX_PARAM(w), IX_PARAM(idx), int is64, IX_PARAM(off), int off64,
                           IX_PARAM(psw), int has_psw, IX_PARAM(out), ulong bags, ulong dim,
                           long rows, long len, long noff, long fixed, int last_offset, int mode,
                           long padding, ulong chunks) {
  const ulong g = get_global_id(0);
  if (g >= bags * chunks) return;
  const ulong b = g / chunks, first = (g - b * chunks) * EB_W;
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
  __global const DTYPE *wt = IX_BASE(w, DTYPE) + first;
  __global DTYPE *dst = IX_BASE(out, DTYPE) + b * dim + first;
  const ulong width = min((ulong)EB_W, dim - first);
  int count = 0;
  if (width == EB_W) {
    /* Branch-free loop bodies per mode: the row load is the whole cost. */
    __global const uchar *ix = idx_ptr + idx_off;
    EB_VEC acc = 0.0f;
    if (mode == 2) {
      acc = -INFINITY;
      for (long j = start; j < end; ++j) {
        const long r = ix_fix(ix_load_index(ix, j, is64), rows, 0);
        if (r < 0 || r == padding) continue;
        const EB_VEC v = VLOAD(DTYPE, 16, wt + r * (long)dim);
        acc = select(acc, v, isnan(v) || v > acc);
        ++count;
      }
    } else if (has_psw) {
      for (long j = start; j < end; ++j) {
        const long r = ix_fix(ix_load_index(ix, j, is64), rows, 0);
        if (r < 0 || r == padding) continue;
        acc += VLOAD(DTYPE, 16, wt + r * (long)dim) * (float)VLOAD(DTYPE, 1, IX_BASE(psw, DTYPE) + j);
        ++count;
      }
    } else {
      for (long j = start; j < end; ++j) {
        const long r = ix_fix(ix_load_index(ix, j, is64), rows, 0);
        if (r < 0 || r == padding) continue;
        acc += VLOAD(DTYPE, 16, wt + r * (long)dim);
        ++count;
      }
    }
    if (count == 0) acc = 0.0f;
    if (mode == 1 && count > 0) acc /= (float)count;
    VSTORE(DTYPE, 16, acc, dst);
    return;
  }
  for (ulong d = 0; d < width; ++d) {
    float acc = mode == 2 ? -INFINITY : 0.0f;
    count = 0;
    for (long j = start; j < end; ++j) {
      const long r = ix_fix(ix_load_index(idx_ptr + idx_off, j, is64), rows, 0);
      if (r < 0 || r == padding) continue;
      float v = VLOAD(DTYPE, 1, wt + r * (long)dim + d);
      if (has_psw) v *= VLOAD(DTYPE, 1, IX_BASE(psw, DTYPE) + j);
      acc = mode == 2 ? ((isnan(v) || v > acc) ? v : acc) : acc + v;
      ++count;
    }
    if (count == 0) acc = 0.0f;
    if (mode == 1 && count > 0) acc /= (float)count;
    VSTORE(DTYPE, 1, acc, dst + d);
  }
}
