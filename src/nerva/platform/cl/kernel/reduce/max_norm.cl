/*
 * MaxNorm: torch.embedding_renorm_, in place on weight (rows x row_len).
 * One group per entry k of indices: the row weight[indices[k]] is scaled by
 * max_norm / (norm + 1e-7) when its norm_type-norm exceeds max_norm. An
 * index outside [0, rows) is skipped, and so is any index that already
 * occurs earlier in the list, so every row is rescaled once.
 * Definitions: DTYPE (weight), DTYPE_INDEX (indices), BLOCK_SIZE.
 */
// #include "common.h"
// #include "reduce.h"

#define MN_NORM_STEP(d, s) mn_red[d] = nerva_norm_fold(mn_red[d], mn_red[s], p);
#define MN_SEEN_STEP(d, s) mn_seen[d] |= mn_seen[s];

__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void max_norm(
    DECL_TENSOR2D(weight), DECL_TENSOR1D(indices), float max_norm, float p, int rows,
    int row_len) {
  const int lid = get_local_id(0);
  const int k = get_global_id(1);
  const long row = (long)*TENSOR1D_PTR(indices, DTYPE_INDEX, k);
  __local int mn_seen[BLOCK_SIZE];
  int seen = 0;
  for (int j = lid; j < k; j += BLOCK_SIZE) {
    seen |= (long)*TENSOR1D_PTR(indices, DTYPE_INDEX, j) == row;
  }
  mn_seen[lid] = seen;
  GROUP_TREE_REDUCE(lid, MN_SEEN_STEP)
  /* Every item reaches every barrier: a skipped entry folds nothing. */
  const bool skip = mn_seen[0] || row < 0 || row >= rows;
  __global DTYPE* w = TENSOR2D_PTR(weight, DTYPE, 0, skip ? 0 : row);
  const int len = skip ? 0 : row_len;
  float acc = 0.0f;
  for (int j = lid; j < len; j += BLOCK_SIZE) {
    acc = nerva_norm_fold(acc, nerva_norm_value(CONVERT(float, 1, VLOAD(DTYPE, 1, w + j)), p), p);
  }
  __local float mn_red[BLOCK_SIZE];
  mn_red[lid] = acc;
  GROUP_TREE_REDUCE(lid, MN_NORM_STEP)
  const float norm = nerva_norm_finish(mn_red[0], p);
  if (norm > max_norm) {
    const float scale = max_norm / (norm + 1e-7f);
    for (int j = lid; j < len; j += BLOCK_SIZE) {
      VSTORE(DTYPE, 1, CONVERT(DTYPE, 1, CONVERT(float, 1, VLOAD(DTYPE, 1, w + j)) * scale), w + j);
    }
  }
}
