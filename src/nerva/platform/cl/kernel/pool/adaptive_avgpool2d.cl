/*
 * Adaptive average pooling, 2-D: windows [floor(o * in / out), ceil((o + 1) * in / out)).
 * One work item per output element; helpers and definitions in "pool.h".
 */
// #include "common.h"
// #include "pool.h"

__kernel void adaptive_avgpool2d(DECL_TENSOR1D(src), DECL_TENSOR1D(dst), int4 isz, int4 osz) {
  int4 o;
  const long plane = pool_item(osz, &o);
  if (plane < 0) return;
  const long g = pool_index(plane, o, osz);
  POOL_STORE(adaptive_avg(POOL_SRC(src) + plane * pool_volume(isz), isz, osz, o), POOL_DST(dst), g);
}

/* Output 1 x 1 (global average pooling): one work item per plane of n
 * contiguous elements, summed POOL_V at a time. */
__kernel void adaptive_avgpool_planes(DECL_TENSOR1D(src), DECL_TENSOR1D(dst), int n, int planes) {
  const int plane = get_global_id(0);
  if (plane >= planes) return;
  __global const DTYPE *in = POOL_SRC(src) + (long)plane * n;
  pool_vec acc = (pool_vec)(0.0f);
  int i = 0;
  for (; i + POOL_V <= n; i += POOL_V) acc += VLOAD(DTYPE, 8, in + i);
  const float4 half_sum = acc.lo + acc.hi;
  float sum = (half_sum.s0 + half_sum.s1) + (half_sum.s2 + half_sum.s3);
  for (; i < n; ++i) sum += POOL_LOAD(in, i);
  POOL_STORE(sum / (float)n, POOL_DST(dst), plane);
}
