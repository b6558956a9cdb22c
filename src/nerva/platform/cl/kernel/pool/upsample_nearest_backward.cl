/*
 * Gradient of 2-D nearest upsampling: each input element sums the outputs whose nearest source it is (a contiguous run along each dimension), in output order.
 * One work item per input element; helpers and definitions in "pool.h".
 */
// #include "common.h"
// #include "pool.h"

__kernel void upsample_nearest_backward(DECL_TENSOR1D(grad_out), DECL_TENSOR1D(grad_in),
                                        int4 isz, int4 osz, float scale_h, float scale_w) {
  int4 i;
  const long plane = pool_item(isz, &i);
  if (plane < 0) return;
  const long g = pool_index(plane, i, isz);
  __global const DTYPE *src = POOL_SRC(grad_out) + plane * pool_volume(osz);
  const int w0 = nearest_cover_first(i.s2, scale_w, isz.s2, osz.s2);
  float sum = 0.0f;
  for (int oh = nearest_cover_first(i.s1, scale_h, isz.s1, osz.s1);
       oh < osz.s1 && nearest_src(oh, scale_h, isz.s1) == i.s1; ++oh) {
    for (int ow = w0; ow < osz.s2 && nearest_src(ow, scale_w, isz.s2) == i.s2; ++ow) {
      sum += POOL_LOAD(src, oh * osz.s2 + ow);
    }
  }
  POOL_STORE(sum, POOL_DST(grad_in), g);
}
