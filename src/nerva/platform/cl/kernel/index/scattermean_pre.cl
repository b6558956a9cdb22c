/* ScatterMean, first pass: the sums and counts start at 0. */
__kernel void scattermean_pre(__global ACC_T *acc, __global int *count, ulong n) {
  const ulong i = get_global_id(0);
  if (i >= n) return;
  acc[i] = (ACC_T)0;
  count[i] = 0;
}
