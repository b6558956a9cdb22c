/*
 * ArgMax: the index of the largest element along one axis.
 * Definitions: DTYPE (input), DTYPE_OUT (index type), VEC_SIZE (4 only),
 * VEC_SIZE_LEFTOVER, BLOCK_SIZE; with ARG_WITH_VALUES also DTYPE_VALUES and
 * a values output.
 *
 * "argmax_x" (innermost axis): one group per row; each item keeps per lane a
 * running best value and its index, then the lanes and the group are folded
 * with the tree of "reduce.h". "argmax" (any other axis): one item per kept
 * column walks the axis.
 *
 * A program placed ahead of this text may define ARG_KERNEL_X, ARG_KERNEL,
 * ARG_REPLACE(a, ai, b, bi) (true when candidate b at index bi replaces the
 * best a at index ai) and ARG_KEEP_VEC(a, ai, b) (its float4 form for a later
 * candidate: the lanes where the best a stays); argmin and the max/min with
 * indices do. Float-register types run the row loop on float4 selects.
 *
 * ArgMax keeps the running best only when it is strictly greater than the
 * candidate: equal values go to the later index, and a NaN never sticks,
 * since every comparison with it is false and the next element replaces it.
 */
// #include "common.h"
// #include "reduce.h"

#ifndef ARG_KERNEL_X
#define ARG_KERNEL_X argmax_x
#define ARG_KERNEL argmax
#define ARG_REPLACE(a, ai, b, bi) (!((a) > (b) || ((a) == (b) && (ai) > (bi))))
#define ARG_KEEP_VEC(a, ai, b) isgreater(a, b)
#endif

#if VEC_SIZE != 4
#error "Unsupported Vector Size"
#endif

#define ARG_T DECL_VEC_TYPE(DTYPE, 1)
#define ARG_LOAD(p) VLOAD(DTYPE, 1, p)

/* Folds candidate (v, i) into the best (bv, bi); an index of -1 marks no element. */
#define ARG_UPDATE(bv, bi, v, i)                                               \
  if ((i) >= 0 && ((bi) < 0 || ARG_REPLACE(bv, bi, v, i))) {                \
    bv = (v);                                                                \
    bi = (i);                                                                \
  }

#define ARG_TREE_STEP(d, s) ARG_UPDATE(arg_val[d], arg_idx[d], arg_val[s], arg_idx[s])

#ifdef ARG_WITH_VALUES
#define ARG_VALUES_PARAM(DECL) DECL(values),
#define ARG_STORE_VALUE(v, p) VSTORE(DTYPE_VALUES, 1, CONVERT(DTYPE_VALUES, 1, v), p)
#else
#define ARG_VALUES_PARAM(DECL)
#define ARG_STORE_VALUE(v, p)
#endif

__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void ARG_KERNEL_X(
    DECL_TENSOR2D(src), DECL_TENSOR1D(dst), ARG_VALUES_PARAM(DECL_TENSOR1D) int mult_of_vector_size) {
  const int lid = get_local_id(0);
  const int row = get_global_id(1);
  __global const DTYPE* p = TENSOR2D_PTR(src, DTYPE, 0, row);
  ARG_T best[4] = {0, 0, 0, 0};
  int best_idx[4] = {-1, -1, -1, -1};
  if (lid == 0) {
    for (int k = 0; k < VEC_SIZE_LEFTOVER; ++k) ARG_UPDATE(best[0], best_idx[0], ARG_LOAD(p + k), k);
  }
#if NERVA_IS_FLOAT(REG_TYPE(DTYPE))
  /* Lane-wise selects; a NaN start is replaced by the first candidate. */
  float4 best_v = (float4)(NAN);
  int4 best_i = (int4)(-1);
  int4 nan_seen = 0;
  __local int row_nan;
  if (lid == 0) row_nan = 0;
  barrier(CLK_LOCAL_MEM_FENCE);
  FOR_SHARE(i, lid, mult_of_vector_size, BLOCK_SIZE) {
    const int base = VEC_SIZE_LEFTOVER + i * 4;
    const float4 v = VLOAD(DTYPE, 4, p + base);
    const int4 keep = ARG_KEEP_VEC(best_v, best_i, v);
    nan_seen |= isnan(v);
    best_v = select(v, best_v, keep);
    best_i = select((int4)(base) + (int4)(0, 1, 2, 3), best_i, keep);
  }
  if (any(nan_seen)) atomic_or(&row_nan, 1);
  ARG_UPDATE(best[0], best_idx[0], best_v.s0, best_i.s0);
  ARG_UPDATE(best[1], best_idx[1], best_v.s1, best_i.s1);
  ARG_UPDATE(best[2], best_idx[2], best_v.s2, best_i.s2);
  ARG_UPDATE(best[3], best_idx[3], best_v.s3, best_i.s3);
#else
  FOR_SHARE(i, lid, mult_of_vector_size, BLOCK_SIZE) {
    const int base = VEC_SIZE_LEFTOVER + i * 4;
    const DECL_VEC_TYPE(DTYPE, 4) v = VLOAD(DTYPE, 4, p + base);
    ARG_UPDATE(best[0], best_idx[0], v.s0, base);
    ARG_UPDATE(best[1], best_idx[1], v.s1, base + 1);
    ARG_UPDATE(best[2], best_idx[2], v.s2, base + 2);
    ARG_UPDATE(best[3], best_idx[3], v.s3, base + 3);
  }
#endif
  /* Lane fold: .zw against .xy, then .y against .x. */
  ARG_UPDATE(best[0], best_idx[0], best[2], best_idx[2]);
  ARG_UPDATE(best[1], best_idx[1], best[3], best_idx[3]);
  ARG_UPDATE(best[0], best_idx[0], best[1], best_idx[1]);
  __local ARG_T arg_val[BLOCK_SIZE];
  __local int arg_idx[BLOCK_SIZE];
  arg_val[lid] = best[0];
  arg_idx[lid] = best_idx[0];
  GROUP_TREE_REDUCE(lid, ARG_TREE_STEP)
#if NERVA_IS_FLOAT(REG_TYPE(DTYPE))
  /* Where a NaN moves the running best, only the row's order gives it. */
  if (lid == 0 && row_nan) {
    ARG_T b = 0;
    int bi = -1;
    for (int k = 0; k < VEC_SIZE_LEFTOVER + mult_of_vector_size * 4; ++k) {
      ARG_UPDATE(b, bi, ARG_LOAD(p + k), k);
    }
    arg_val[0] = b;
    arg_idx[0] = bi;
  }
#endif
  if (lid == 0) {
    VSTORE(DTYPE_OUT, 1, CONVERT(DTYPE_OUT, 1, arg_idx[0]), TENSOR1D_PTR(dst, DTYPE_OUT, row));
    ARG_STORE_VALUE(arg_val[0], TENSOR1D_PTR(values, DTYPE_VALUES, row));
  }
}

#ifdef NERVA_HOST_CPU_DEVICE
/* The row form for CPU devices: one item per row, no barriers. Float-register
 * types keep a best value and index per lane of ROW_VEC-wide vectors after
 * the leading `length % ROW_VEC` elements, which are folded first; the lanes
 * are then folded in order. Other types walk the row one element at a time. */
#define ARG_ROW_F NERVA_VEC(float, ROW_VEC)
#define ARG_ROW_I NERVA_VEC(int, ROW_VEC)
__kernel void NERVA_CAT(ARG_KERNEL_X, _row)(DECL_TENSOR2D(src), DECL_TENSOR1D(dst),
                                            ARG_VALUES_PARAM(DECL_TENSOR1D) int length) {
  const int row = get_global_id(0);
  __global const DTYPE* p = TENSOR2D_PTR(src, DTYPE, 0, row);
  ARG_T best = 0;
  int best_idx = -1;
#if NERVA_IS_FLOAT(REG_TYPE(DTYPE))
  const int lead = length % ROW_VEC;
  for (int k = 0; k < lead; ++k) ARG_UPDATE(best, best_idx, ARG_LOAD(p + k), k);
  ARG_ROW_F best_v = (ARG_ROW_F)(NAN);
  ARG_ROW_I best_i = (ARG_ROW_I)(-1);
  ARG_ROW_I nan_seen = 0;
  const ARG_ROW_I lanes = (ARG_ROW_I)(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
  for (int base = lead; base < length; base += ROW_VEC) {
    const ARG_ROW_F v = VLOAD(DTYPE, ROW_VEC, p + base);
    const ARG_ROW_I keep = ARG_KEEP_VEC(best_v, best_i, v);
    nan_seen |= isnan(v);
    best_v = select(v, best_v, keep);
    best_i = select((ARG_ROW_I)(base) + lanes, best_i, keep);
  }
  if (any(nan_seen)) {
    /* Where a NaN moves the running best, only the row's order gives it. */
    for (int k = lead; k < length; ++k) ARG_UPDATE(best, best_idx, ARG_LOAD(p + k), k);
  } else {
    float lane_v[ROW_VEC];
    int lane_i[ROW_VEC];
    vstore16(best_v, 0, lane_v);
    vstore16(best_i, 0, lane_i);
    for (int k = 0; k < ROW_VEC; ++k) ARG_UPDATE(best, best_idx, lane_v[k], lane_i[k]);
  }
#else
  for (int k = 0; k < length; ++k) ARG_UPDATE(best, best_idx, ARG_LOAD(p + k), k);
#endif
  VSTORE(DTYPE_OUT, 1, CONVERT(DTYPE_OUT, 1, best_idx), TENSOR1D_PTR(dst, DTYPE_OUT, row));
  ARG_STORE_VALUE(best, TENSOR1D_PTR(values, DTYPE_VALUES, row));
}
#endif

/* (outer x axis x inner) view: item (x, z) walks the axis at column x of slice z. */
__kernel void ARG_KERNEL(DECL_TENSOR3D(src), DECL_TENSOR2D(dst),
                         ARG_VALUES_PARAM(DECL_TENSOR2D) int axis_size) {
  const int x = get_global_id(0);
  const int z = get_global_id(1);
  ARG_T best = ARG_LOAD(TENSOR3D_PTR(src, DTYPE, x, 0, z));
  int best_idx = 0;
  for (int r = 1; r < axis_size; ++r) {
    ARG_UPDATE(best, best_idx, ARG_LOAD(TENSOR3D_PTR(src, DTYPE, x, r, z)), r);
  }
  VSTORE(DTYPE_OUT, 1, CONVERT(DTYPE_OUT, 1, best_idx), TENSOR2D_PTR(dst, DTYPE_OUT, x, z));
  ARG_STORE_VALUE(best, TENSOR2D_PTR(values, DTYPE_VALUES, x, z));
}
