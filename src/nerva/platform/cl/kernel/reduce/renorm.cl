/*
 * Renorm: torch.renorm. Each slice input.select(dim, i) of an (outer x n x
 * inner) view whose p-norm exceeds maxnorm is scaled by
 * maxnorm / (norm + 1e-7); the others are copied. One group per slice folds
 * the norm terms (p given at run time) with the tree of "reduce.h", then
 * writes the slice; the output may be the input itself.
 * Definitions: DTYPE, DTYPE_OUT, BLOCK_SIZE.
 */
// #include "common.h"
// #include "reduce.h"

#define RN_STEP(d, s) rn_red[d] = nerva_norm_fold(rn_red[d], rn_red[s], p);

__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void renorm(
    DECL_TENSOR3D(src), DECL_TENSOR3D(dst), float p, float maxnorm, int outer, int inner) {
  const int lid = get_local_id(0);
  const int slice = get_global_id(1);
  const int count = outer * inner;
  float acc = 0.0f;
  for (int t = lid; t < count; t += BLOCK_SIZE) {
    const float x = CONVERT(float, 1, VLOAD(DTYPE, 1, TENSOR3D_PTR(src, DTYPE, t % inner, slice, t / inner)));
    acc = nerva_norm_fold(acc, nerva_norm_value(x, p), p);
  }
  __local float rn_red[BLOCK_SIZE];
  rn_red[lid] = acc;
  GROUP_TREE_REDUCE(lid, RN_STEP)
  const float norm = nerva_norm_finish(rn_red[0], p);
  const float scale = norm > maxnorm ? maxnorm / (norm + 1e-7f) : 1.0f;
  for (int t = lid; t < count; t += BLOCK_SIZE) {
    const float x = CONVERT(float, 1, VLOAD(DTYPE, 1, TENSOR3D_PTR(src, DTYPE, t % inner, slice, t / inner)));
    VSTORE(DTYPE_OUT, 1, CONVERT(DTYPE_OUT, 1, x * scale),
           TENSOR3D_PTR(dst, DTYPE_OUT, t % inner, slice, t / inner));
  }
}
