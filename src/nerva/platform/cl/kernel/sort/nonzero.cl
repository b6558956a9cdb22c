/*
 * Nonzero in three launches.
 * - is_zero: flags[i] = (in[i] != 0), VEC_SIZE elements per work item (the
 *   first two vectors overlap when there is a leftover). Definitions: DTYPE,
 *   VEC_SIZE, VEC_SIZE_LEFTOVER.
 * - cumsumif (ENABLE_CUMSUMIF_KERNEL): one group of BLOCK_SIZE items scans the
 *   flags in tiles of 2 * BLOCK_SIZE (Sklansky, int accumulation, running
 *   total carried between tiles); a flagged element whose position in the
 *   scan is below output_num writes its flat index there. The total goes to
 *   count. Definitions: BLOCK_SIZE, FLAT_DTYPE, COUNT_DTYPE.
 * - nonzero (ENABLE_NONZERO_KERNEL): output row r < min(count, output_num)
 *   gets the coordinates of flat_indices[r]. Entry e of a row is stored in
 *   column rank - 1 - e, so rows read outermost dimension first. With
 *   TENSOR_2D entry 0 is the column and entry 1 the row; otherwise entries
 *   rank-1 .. 1 take flat / in_shape[e] (keeping the remainder) and entry 0
 *   the final remainder; in_shape[e] is the element stride of dimension
 *   rank - 1 - e. Definitions: FLAT_DTYPE, COUNT_DTYPE, OUT_DTYPE.
 */
// #include "common.h"

#if !defined(ENABLE_CUMSUMIF_KERNEL) && !defined(ENABLE_NONZERO_KERNEL)
__kernel void is_zero(DECL_TENSOR1D(in), DECL_TENSOR1D(flags)) {
#if VEC_SIZE_LEFTOVER == 0
  const size_t offset = get_global_id(0) * VEC_SIZE;
#else
  const size_t offset = VEC_OFFSET(get_global_id(0), VEC_SIZE, VEC_SIZE_LEFTOVER);
#endif
  const DECL_VEC_TYPE(DTYPE, VEC_SIZE) x =
      VLOAD(DTYPE, VEC_SIZE, (__global DTYPE *)TENSOR_BASE(in) + offset);
  const NERVA_VEC(int, VEC_SIZE) flag = CONVERT(int, VEC_SIZE, x != (DECL_VEC_TYPE(DTYPE, VEC_SIZE))(0));
  /* Vector comparisons give -1 for true, scalar ones 1: keep the low bit. */
  VSTORE(int, VEC_SIZE, flag & 1, (__global int *)TENSOR_BASE(flags) + offset);
}
#endif

#ifdef ENABLE_CUMSUMIF_KERNEL
__kernel void cumsumif(DECL_TENSOR1D(flags), DECL_TENSOR1D(flat_indices), DECL_TENSOR1D(count),
                       int n, int output_num) {
  __local int scan[2 * BLOCK_SIZE];
  const int i = get_local_id(0);
  __global const int *flag = (__global const int *)TENSOR_BASE(flags);
  __global FLAT_DTYPE *flat = (__global FLAT_DTYPE *)TENSOR_BASE(flat_indices);
  int total = 0;
  for (int base = 0; base < n; base += 2 * BLOCK_SIZE) {
    const int a = base + i, b = base + i + BLOCK_SIZE;
    const int fa = a < n ? flag[a] : 0, fb = b < n ? flag[b] : 0;
    scan[i] = fa;
    scan[i + BLOCK_SIZE] = fb;
    barrier(CLK_LOCAL_MEM_FENCE);
    for (int d = 1; d <= BLOCK_SIZE; d <<= 1) {
      const int block = (i / d) * 2 * d;
      scan[block + d + (i % d)] += scan[block + d - 1];
      barrier(CLK_LOCAL_MEM_FENCE);
    }
    /* Inclusive scan: a flagged element's output position is its value - 1. */
    const int pa = total + scan[i] - 1, pb = total + scan[i + BLOCK_SIZE] - 1;
    if (fa && pa < output_num) flat[pa] = (FLAT_DTYPE)a;
    if (fb && pb < output_num) flat[pb] = (FLAT_DTYPE)b;
    total += scan[2 * BLOCK_SIZE - 1];
    barrier(CLK_LOCAL_MEM_FENCE);
  }
  if (i == 0) *(__global COUNT_DTYPE *)TENSOR_BASE(count) = (COUNT_DTYPE)total;
}
#endif

#ifdef ENABLE_NONZERO_KERNEL
#define NZ_ENTRY(e) (*(__global OUT_DTYPE *)(row + (rank - 1 - (e)) * out_stride_x))
__kernel void nonzero(DECL_TENSOR1D(flat_indices), DECL_TENSOR1D(count), DECL_TENSOR2D(out),
                      int rank, int output_num, int s0, int s1, int s2, int s3, int s4, int s5,
                      int s6, int s7) {
  const int r = get_global_id(0);
  const int total = (int)*(__global const COUNT_DTYPE *)TENSOR_BASE(count);
  if (r >= min(total, output_num)) return;
  int flat = (int)((__global const FLAT_DTYPE *)TENSOR_BASE(flat_indices))[r];
  __global uchar *row = TENSOR_BASE(out) + r * out_stride_y;
#if defined(TENSOR_2D)
  NZ_ENTRY(0) = (OUT_DTYPE)(flat % s1);
  NZ_ENTRY(1) = (OUT_DTYPE)(flat / s1);
#elif defined(TENSOR_3D)
  NZ_ENTRY(2) = (OUT_DTYPE)row_quotient;
  const int row_quotient = flat / s2;
  NZ_ENTRY(1) = (OUT_DTYPE)((flat % s2) / s1);
  NZ_ENTRY(0) = (OUT_DTYPE)(flat % s1);
#else
  const int in_shape[8] = {s0, s1, s2, s3, s4, s5, s6, s7};
  for (int e = rank - 1; e >= 1; --e) {
    NZ_ENTRY(e) = (OUT_DTYPE)(flat / in_shape[e]);
    flat %= in_shape[e];
  }
  NZ_ENTRY(0) = (OUT_DTYPE)flat;
#endif
}
#endif
