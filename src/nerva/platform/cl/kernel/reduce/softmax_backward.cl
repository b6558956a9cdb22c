/*
 * SoftmaxBackward: grad_input = y * (g - sum(g * y)) along one axis, from the
 * forward output y and the output gradient g, in float.
 * Definitions: DTYPE (g and y), DTYPE_OUT (grad_input), VEC_SIZE,
 * VEC_SIZE_LEFTOVER, BLOCK_SIZE; IS_2D_TENSOR for the column form on a 2-D
 * view.
 *
 * <prefix>_x: one group per row of the innermost axis; the row sum uses the
 * tree of "reduce.h" (item 0 adds the leftover elements, which start the
 * row). <prefix>: any other axis; one item per vector of inner columns walks
 * the axis twice.
 *
 * A program placed ahead of this text may define SMB_PREFIX, SMB_TERM(g, y)
 * (the summed term) and SMB_OUT(g, y, s); log-softmax backward does.
 */
// #include "common.h"
// #include "math.h"
// #include "reduce.h"

#ifndef SMB_PREFIX
#define SMB_PREFIX softmax_backward
#define SMB_TERM(g, y) ((g) * (y))
#define SMB_OUT(g, y, s) ((y) * ((g) - (s)))
#endif

#define SMB_VEC NERVA_VEC(float, VEC_SIZE)
#define SMB_LOAD(p) CONVERT(float, VEC_SIZE, VLOAD(DTYPE, VEC_SIZE, p))
#define SMB_LOAD1(p) CONVERT(float, 1, VLOAD(DTYPE, 1, p))
#define SMB_STORE(v, p) VSTORE(DTYPE_OUT, VEC_SIZE, CONVERT(DTYPE_OUT, VEC_SIZE, v), p)
#define SMB_STORE1(v, p) VSTORE(DTYPE_OUT, 1, CONVERT(DTYPE_OUT, 1, v), p)
#define SMB_SUM_STEP(d, s) smb_red[d] = smb_red[d] + smb_red[s];

__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void NERVA_CAT(SMB_PREFIX, _x)(
    DECL_TENSOR2D(grad_output), DECL_TENSOR2D(output), DECL_TENSOR2D(grad_input),
    uint mult_of_vector_size) {
  const int lid = get_local_id(0);
  const int row = get_global_id(1);
  __global const DTYPE* g = TENSOR2D_PTR(grad_output, DTYPE, 0, row);
  __global const DTYPE* y = TENSOR2D_PTR(output, DTYPE, 0, row);
  __global DTYPE_OUT* d = TENSOR2D_PTR(grad_input, DTYPE_OUT, 0, row);
  __local SMB_VEC smb_red[BLOCK_SIZE];
  SMB_VEC s = 0.0f;
  FOR_SHARE(i, lid, mult_of_vector_size, BLOCK_SIZE) {
    const uint at = VEC_SIZE_LEFTOVER + i * VEC_SIZE;
    s += SMB_TERM(SMB_LOAD(g + at), SMB_LOAD(y + at));
  }
#if VEC_SIZE_LEFTOVER > 0
  if (lid == 0) {
    for (int k = 0; k < VEC_SIZE_LEFTOVER; ++k) s.x += SMB_TERM(SMB_LOAD1(g + k), SMB_LOAD1(y + k));
  }
#endif
  smb_red[lid] = s;
  GROUP_TREE_REDUCE(lid, SMB_SUM_STEP)
  const float sum = LANE_SUM(VEC_SIZE, smb_red[0]);
  FOR_SHARE(i, lid, mult_of_vector_size, BLOCK_SIZE) {
    const uint at = VEC_SIZE_LEFTOVER + i * VEC_SIZE;
    SMB_STORE(SMB_OUT(SMB_LOAD(g + at), SMB_LOAD(y + at), sum), d + at);
  }
#if VEC_SIZE_LEFTOVER > 0
  if (lid == 0) {
    for (int k = 0; k < VEC_SIZE_LEFTOVER; ++k) {
      SMB_STORE1(SMB_OUT(SMB_LOAD1(g + k), SMB_LOAD1(y + k), sum), d + k);
    }
  }
#endif
}

#if VEC_SIZE_LEFTOVER == 0
#define SMB_COLUMN() ((int)get_global_id(0) * VEC_SIZE)
#else
#define SMB_COLUMN() VEC_OFFSET(get_global_id(0), VEC_SIZE, VEC_SIZE_LEFTOVER)
#endif
#ifdef IS_2D_TENSOR
#define SMB_DECL DECL_TENSOR2D
#define SMB_AT(t, T, r) TENSOR2D_PTR(t, T, col, r)
#else
#define SMB_DECL DECL_TENSOR3D
#define SMB_AT(t, T, r) TENSOR3D_PTR(t, T, col, r, get_global_id(2))
#endif

__kernel void SMB_PREFIX(SMB_DECL(grad_output), SMB_DECL(output), SMB_DECL(grad_input),
                         int axis_size) {
  const int col = SMB_COLUMN();
  SMB_VEC s = 0.0f;
  for (int r = 0; r < axis_size; ++r) {
    s += SMB_TERM(SMB_LOAD(SMB_AT(grad_output, DTYPE, r)), SMB_LOAD(SMB_AT(output, DTYPE, r)));
  }
  for (int r = 0; r < axis_size; ++r) {
    SMB_STORE(SMB_OUT(SMB_LOAD(SMB_AT(grad_output, DTYPE, r)), SMB_LOAD(SMB_AT(output, DTYPE, r)), s),
              SMB_AT(grad_input, DTYPE_OUT, r));
  }
}
