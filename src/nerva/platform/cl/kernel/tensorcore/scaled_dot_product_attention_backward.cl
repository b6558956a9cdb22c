/*
 * Tensor-core attention backward: the query gradient.
 */
// #include "scaled_dot_product_attention_backward_transpose.cl"

#define ACC_Q ((BQ * HEAD_DIM + BLOCK_SIZE - 1) / BLOCK_SIZE)

/* One query tile of one (batch, head) per group: per key tile the scores and
 * dP = dO V^T on the tensor unit, dS = P (Z dP - delta) into local memory, and
 * dS K on the tensor unit added to the rows' dQ, scaled at the end.
 * Global (BLOCK_SIZE, query tiles, batch * heads). */
TC_KERNEL_ATTRIBUTES
__kernel void sdpa_backward_query_tensorcore(
    DECL_VIEW(const DTYPE, dout), DECL_VIEW(const DTYPE, q), __global char* kt, __global char* vt,
    __global char* kp, DECL_VIEW(const float, lse), DECL_VIEW(const float, delta),
    DECL_VIEW(DTYPE, dq), TC_BWD_PARAMS) {
  TC_LOCAL(TC_BITS, qs, BQ * HEAD_DIM);
  TC_LOCAL(TC_BITS, dos, BQ * VALUE_DIM);
  TC_LOCAL(float, st, BQ * BK);
  TC_LOCAL(float, dpt, BQ * BK);
  TC_LOCAL(TC_BITS, dst, BQ * BK);
  TC_LOCAL(float, dqt, BQ * HEAD_DIM);
  __local float lse_row[BQ], delta_row[BQ];
  const int lid = get_local_id(0), q0 = get_group_id(1) * BQ;
  const int bh = get_global_id(2), b = bh / heads, h = bh % heads;
  const long bhk = (long)b * kv_heads + h / group;
  __global char* kt_bh = kt + bhk * tiles * BK * HEAD_DIM * DTYPE_SIZE;
  __global char* vt_bh = vt + bhk * tiles * BK * VALUE_DIM * DTYPE_SIZE;
  __global char* kp_bh = kp + bhk * tiles * BK * HEAD_DIM * DTYPE_SIZE;
  TC_STAGE_ROWS(qs, q, HEAD_DIM, h, q0);
  TC_STAGE_ROWS(dos, dout, VALUE_DIM, h, q0);
  for (int r = lid; r < BQ; r += BLOCK_SIZE) {
    lse_row[r] = q0 + r < L ? *VIEW_PTR(lse, b, h, q0 + r, 0) : -INFINITY;
    delta_row[r] = q0 + r < L ? *VIEW_PTR(delta, b, h, q0 + r, 0) : 0.0f;
  }
  float acc[ACC_Q];
  for (int t = 0; t < ACC_Q; ++t) acc[t] = 0.0f;
  barrier(CLK_LOCAL_MEM_FENCE);
  const tc_fragment_handle_t q_frag = TC_FRAG_LOCAL(TC_DTYPE_OF(DTYPE), BQ, HEAD_DIM, DTYPE_SIZE, qs);
  const tc_fragment_handle_t do_frag =
      TC_FRAG_LOCAL(TC_DTYPE_OF(DTYPE), BQ, VALUE_DIM, DTYPE_SIZE, dos);
  const tc_fragment_handle_t s_frag = TC_FRAG_LOCAL(TC_DTYPE_float, BQ, BK, 4, st);
  const tc_fragment_handle_t dp_frag = TC_FRAG_LOCAL(TC_DTYPE_float, BQ, BK, 4, dpt);
  const tc_fragment_handle_t ds_frag = TC_FRAG_LOCAL(TC_DTYPE_OF(DTYPE), BQ, BK, DTYPE_SIZE, dst);
  const tc_fragment_handle_t dq_frag = TC_FRAG_LOCAL(TC_DTYPE_float, BQ, HEAD_DIM, 4, dqt);
  tc_fusion_data_t fusion = {0};
  TC_FUSION_VERSION(fusion, 1);
  const int kend = causal ? clamp(min(L - 1, q0 + BQ - 1) + 1, 0, S) : S;
  for (int k0 = 0; k0 < kend; k0 += BK) {
    TC_BWD_TILE_PRODUCTS(k0);
    for (int e = lid; e < BQ * BK; e += BLOCK_SIZE) {
      const int r = e / BK;
      float z;
      const float p = tc_bwd_prob(st[e], lse_row[r], q0 + r, k0 + e - r * BK, L, S, causal, scale,
                                  bh, dropout_p, seed, offset, &z);
      VSTORE(DTYPE, 1, p * (z * dpt[e] - delta_row[r]), (__local DTYPE*)dst + e);
    }
    barrier(CLK_LOCAL_MEM_FENCE);
    TC_CALL_AND_WAIT(tc_matmul(ds_frag,
                               TC_FRAG_GLOBAL(BK, HEAD_DIM, kp_bh + (long)k0 * HEAD_DIM * DTYPE_SIZE),
                               false, false, 0, 0, fusion, dq_frag, TC_EVENT));
    for (int t = 0; t < ACC_Q; ++t) {
      const int e = lid + t * BLOCK_SIZE;
      if (e < BQ * HEAD_DIM) acc[t] += dqt[e];
    }
    barrier(CLK_LOCAL_MEM_FENCE);
  }
  for (int t = 0; t < ACC_Q; ++t) {
    const int e = lid + t * BLOCK_SIZE, r = e / HEAD_DIM;
    if (e < BQ * HEAD_DIM && q0 + r < L) {
      VSTORE(DTYPE, 1, acc[t] * scale, VIEW_PTR(dq, b, h, q0 + r, e - r * HEAD_DIM));
    }
  }
}
