/*
 * ReduceWithIndicesMedian: torch.median / torch.nanmedian along one axis of
 * an (outer x n x inner) view: the lower median (the element of rank
 * (m - 1) / 2 among the m counted elements, equal values ranked by index)
 * and its index. One group per kept position (x = inner column, z = outer):
 * the group first counts NaNs with the tree of "reduce.h"; a NaN makes the
 * result NaN at the first NaN's index unless IGNORE_NAN skips NaNs (a row of
 * NaNs only still gives NaN at index 0). Then each item ranks its share of
 * the elements against the whole row and the one of the median rank is kept.
 * Definitions: DTYPE, DTYPE_OUT (indices), DTYPE_VALUES, BLOCK_SIZE, IGNORE_NAN.
 */
// #include "common.h"
// #include "reduce.h"

#define MD_T DECL_VEC_TYPE(DTYPE, 1)
#if NERVA_IS_FLOAT(REG_TYPE(DTYPE))
#define MD_ISNAN(v) isnan(v)
#else
#define MD_ISNAN(v) 0
#endif
#define MD_AT(r) VLOAD(DTYPE, 1, TENSOR3D_PTR(src, DTYPE, x, r, z))
#define MD_STEP(d, s)                                                          \
  md_nans[d] += md_nans[s];                                                  \
  md_first[d] = min(md_first[d], md_first[s]);

__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void reduce_with_indices_median(
    DECL_TENSOR3D(src), DECL_TENSOR2D(values), DECL_TENSOR2D(indices), int axis_size) {
  const int lid = get_local_id(0);
  const int x = get_global_id(1);
  const int z = get_global_id(2);
  __local int md_nans[BLOCK_SIZE];
  __local int md_first[BLOCK_SIZE];
  __local int md_found;
  if (lid == 0) md_found = 0;
  int nans = 0;
  int first = axis_size;
  for (int r = lid; r < axis_size; r += BLOCK_SIZE) {
    const MD_T v = MD_AT(r);
    if (MD_ISNAN(v)) {
      ++nans;
      first = min(first, r);
    }
  }
  md_nans[lid] = nans;
  md_first[lid] = first;
  GROUP_TREE_REDUCE(lid, MD_STEP)
  const int nan_count = md_nans[0];
  const int first_nan = md_first[0];
#ifdef IGNORE_NAN
  const bool nan_result = nan_count == axis_size;
#else
  const bool nan_result = nan_count > 0;
#endif
  const int k = (axis_size - nan_count - 1) / 2;
  for (int i = nan_result ? axis_size : lid; i < axis_size; i += BLOCK_SIZE) {
    const MD_T v = MD_AT(i);
    if (MD_ISNAN(v)) continue;
    int rank = 0;
    for (int j = 0; j < axis_size; ++j) {
      const MD_T u = MD_AT(j);
      rank += (u < v) || (u == v && j < i);
    }
    if (rank == k) md_found = i;
  }
  barrier(CLK_LOCAL_MEM_FENCE);
  if (lid == 0) {
    const int index = nan_result ? (first_nan < axis_size ? first_nan : 0) : md_found;
    const MD_T v = MD_AT(index);
    VSTORE(DTYPE_VALUES, 1, CONVERT(DTYPE_VALUES, 1, v), TENSOR2D_PTR(values, DTYPE_VALUES, x, z));
    VSTORE(DTYPE_OUT, 1, CONVERT(DTYPE_OUT, 1, index), TENSOR2D_PTR(indices, DTYPE_OUT, x, z));
  }
}
