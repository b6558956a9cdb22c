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

/* Output 1 x 1 on GPUs, planes of n <= AVG_STAGE elements: a group of
 * AVG_GROUP items stages AVG_PLANES whole planes (contiguous) in local memory
 * with coalesced loads, then one item per plane sums it there. */
#define AVG_GROUP 256
#define AVG_PLANES 64
__kernel __attribute__((reqd_work_group_size(AVG_GROUP, 1, 1))) void adaptive_avgpool_planes_items(
    DECL_TENSOR1D(src), DECL_TENSOR1D(dst), int n, int planes, __local float *stage) {
  const int first = get_group_id(0) * AVG_PLANES, lid = get_local_id(0);
  const int count = min(AVG_PLANES, planes - first);
  __global const DTYPE *in = POOL_SRC(src) + (long)first * n;
#pragma unroll 4
  for (int k = lid; k < count * n; k += AVG_GROUP) stage[k] = POOL_LOAD(in, k);
  barrier(CLK_LOCAL_MEM_FENCE);
  if (lid >= count) return;
  float sum = 0.0f;
  for (int i = 0; i < n; ++i) sum += stage[lid * n + i];
  POOL_STORE(sum / (float)n, POOL_DST(dst), first + lid);
}

/* Output 1 x 1 on GPUs, larger planes: one group per plane, items along the
 * plane, then a tree over the group's partial sums. */
__kernel __attribute__((reqd_work_group_size(AVG_GROUP, 1, 1))) void adaptive_avgpool_plane_group(
    DECL_TENSOR1D(src), DECL_TENSOR1D(dst), int n, int planes, __local float *partial) {
  const int plane = get_group_id(0), lid = get_local_id(0);
  __global const DTYPE *in = POOL_SRC(src) + (long)plane * n;
  float sum = 0.0f;
  for (int k = lid; k < n; k += AVG_GROUP) sum += POOL_LOAD(in, k);
  partial[lid] = sum;
  for (int step = AVG_GROUP / 2; step > 0; step /= 2) {
    barrier(CLK_LOCAL_MEM_FENCE);
    if (lid < step) partial[lid] += partial[lid + step];
  }
  if (lid == 0) POOL_STORE(partial[0] / (float)n, POOL_DST(dst), plane);
}
