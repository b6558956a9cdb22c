/* ScatterMean, last pass: out = (sum [+ input]) / (count [+ 1]) where
 * something was scattered (floor division for integers), else the input.
 * The divisor goes to the count tensor (count_kind 1 int32, 2 int64, 3 float;
 * 0 none): 1 where nothing was scattered without include_self, as PyTorch. */
__kernel void scattermean_mean(IX_PARAM(in), __global const ACC_T *acc,
                               __global const int *count, IX_PARAM(out), IX_PARAM(cnt),
                               int count_kind, ulong n, int include_self) {
  const ulong i = get_global_id(0);
  if (i >= n) return;
  const ACC_T self = IX_LOAD_ACC(IX_BASE(in, DTYPE), i);
  const int c = count[i] + include_self;
  const ACC_T r = count[i] == 0 ? self : ix_mean(acc[i] + (include_self ? self : (ACC_T)0), (ACC_T)c);
  IX_STORE_ACC(r, IX_BASE(out, DTYPE), i);
  const int divisor = c == 0 ? 1 : c;
  if (count_kind == 1) IX_BASE(cnt, int)[i] = divisor;
  if (count_kind == 2) IX_BASE(cnt, long)[i] = divisor;
  if (count_kind == 3) IX_BASE(cnt, float)[i] = (float)divisor;
}
