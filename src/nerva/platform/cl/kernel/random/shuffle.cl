/*
 * Shuffle: dst[x] = src[indices[x]] row by row, converted from DTYPE_IN to
 * DTYPE_OUT, with each index taken as int (DTYPE_INDICES) and clamped into
 * [0, rows - 1]. Work item (c, x) copies element c of row x.
 * Build definitions: DTYPE_IN, DTYPE_OUT, DTYPE_INDICES.
 */
// #include "common.h"

__kernel void shuffle_kernel(DECL_TENSOR2D(src), DECL_TENSOR1D(indices), DECL_TENSOR2D(dst),
                             int rows) {
  const size_t c = get_global_id(0), x = get_global_id(1);
  const int from = clamp((int)*TENSOR1D_PTR(indices, DTYPE_INDICES, x), 0, rows - 1);
  const DECL_VEC_TYPE(DTYPE_IN, 1) v = VLOAD(DTYPE_IN, 1, TENSOR2D_PTR(src, DTYPE_IN, c, from));
  VSTORE(DTYPE_OUT, 1, CONVERT(DTYPE_OUT, 1, v), TENSOR2D_PTR(dst, DTYPE_OUT, c, x));
}
