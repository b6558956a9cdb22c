/*
 * Eye: out[i][j] = i == j, for an [n, m] output seen with x = j, y = i.
 */
// #include "common.h"
// #include "elementwise.h"

__kernel void Eye(DECL_TENSOR2D(out)) {
  const size_t j = get_global_id(0), i = get_global_id(1);
  VSTORE(OUT_DTYPE, 1, EW_CVT(WRAP, OUT_DTYPE, (i == j)), TENSOR2D_PTR(out, OUT_DTYPE, j, i));
}
