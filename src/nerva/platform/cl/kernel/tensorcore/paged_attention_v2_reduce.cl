/*
 * Merge of the partitions of the paged decode attention on the tensor unit.
 */
// #include "common.h"
// #include "attention.h"
// #include "tc_common.h"
#pragma OPENCL EXTENSION cl_nrv_tensorcore : enable
#include "cl_nrv_tc_ext.h"
#include "cl_nrv_tc_lib.h"

#ifndef NUM_PARTS
#error: Missing NUM_PARTS
#endif

/*
 * One (sequence, head) per group: the weights w_p = exp(m_p - M) e_p / sum_p exp(m_p - M) e_p
 * of the partitions that hold tokens (M their largest maximum), then
 * out = w (1 x NUM_PARTS) x tmp_out (NUM_PARTS x HEAD_DIM) on the tensor unit.
 * A sequence without tokens gets zeros. Global (BLOCK_SIZE, heads, sequences).
 */
TC_KERNEL_ATTRIBUTES
__kernel void paged_attention_v2_reduce_tensorcore(__global const float* max_logits,
                                                   __global const float* exp_sums,
                                                   __global char* tmp_out,
                                                   DECL_VIEW(DTYPE, out)) {
  __local float w[TC_ALIGN_UP(NUM_PARTS * 4, LS_ALIGN_SIZE) / 4]
      __attribute__((aligned(LS_ALIGN_SIZE)));
  __local float o[TC_ALIGN_UP(HEAD_DIM * 4, LS_ALIGN_SIZE) / 4]
      __attribute__((aligned(LS_ALIGN_SIZE)));
  const int lid = get_local_id(0), h = get_group_id(1), s = get_group_id(2);
  const long base = ((long)s * get_num_groups(1) + h) * NUM_PARTS;
  float mx = -INFINITY, total = 0.0f;
  for (int p = 0; p < NUM_PARTS; ++p) {
    if (exp_sums[base + p] > 0.0f) mx = fmax(mx, max_logits[base + p]);
  }
  for (int p = 0; p < NUM_PARTS; ++p) {
    if (exp_sums[base + p] > 0.0f) total += exp(max_logits[base + p] - mx) * exp_sums[base + p];
  }
  const float inv = total > 0.0f ? 1.0f / total : 0.0f;
  for (int p = lid; p < NUM_PARTS; p += BLOCK_SIZE) {
    const float e = exp_sums[base + p];
    w[p] = e > 0.0f ? exp(max_logits[base + p] - mx) * e * inv : 0.0f;
  }
  barrier(CLK_LOCAL_MEM_FENCE);
  tc_fusion_data_t fusion = {0};
  TC_FUSION_VERSION(fusion, 1);
  TC_CALL_AND_WAIT(tc_matmul(
      TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_LOCAL, TC_DTYPE_float, 1, NUM_PARTS, NUM_PARTS * 4, w),
      TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_GLOBAL, TC_DTYPE_float, NUM_PARTS, HEAD_DIM, HEAD_DIM * 4,
                          tmp_out + base * HEAD_DIM * 4),
      false, false, 0, 0, fusion,
      TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_LOCAL, TC_DTYPE_float, 1, HEAD_DIM, HEAD_DIM * 4, o),
      TC_EVENT));
  for (int d = lid; d < HEAD_DIM; d += BLOCK_SIZE) VSTORE(DTYPE, 1, o[d], VIEW_PTR(out, 0, s, h, d));
}
