/*
 * Average pooling, 3-D (torch avg_pool3d: count_include_pad, divisor_override).
 * One work item per output element; helpers and definitions in "pool.h".
 */
// #include "common.h"
// #include "pool.h"

__kernel void avgpool3d(DECL_TENSOR1D(src), DECL_TENSOR1D(dst), int4 isz, int4 osz, int4 k,
                        int4 s, int4 p, int include_pad, int divisor_override) {
  int4 o, start, end;
  const long plane = pool_item(osz, &o);
  if (plane < 0) return;
  const long g = pool_index(plane, o, osz);
  const float div = avg_divisor(o, isz, k, s, p, include_pad, divisor_override, &start, &end);
  const float sum =
      div == 0.0f ? 0.0f : pool_box_sum(POOL_SRC(src) + plane * pool_volume(isz), isz, start, end);
  POOL_STORE(div == 0.0f ? 0.0f : sum / div, POOL_DST(dst), g);
}
