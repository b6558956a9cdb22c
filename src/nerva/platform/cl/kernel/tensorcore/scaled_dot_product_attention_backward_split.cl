/*
 * Tensor-core attention backward: the rows' delta = sum_j P Z dP.
 */
// #include "scaled_dot_product_attention_backward_transpose.cl"

/* One query tile of one (batch, head) per group: per key tile the scores and
 * dP = dO V^T on the tensor unit, then delta[i] += sum_j P[i][j] Z[i][j] dP[i][j].
 * Global (BLOCK_SIZE, query tiles, batch * heads). */
TC_KERNEL_ATTRIBUTES
__kernel void sdpa_backward_delta_tensorcore(DECL_VIEW(const DTYPE, dout),
                                             DECL_VIEW(const DTYPE, q), __global char* kt,
                                             __global char* vt, DECL_VIEW(const float, lse),
                                             DECL_VIEW(float, delta), TC_BWD_PARAMS) {
  TC_LOCAL(TC_BITS, qs, BQ * HEAD_DIM);
  TC_LOCAL(TC_BITS, dos, BQ * VALUE_DIM);
  TC_LOCAL(float, st, BQ * BK);
  TC_LOCAL(float, dpt, BQ * BK);
  const int lid = get_local_id(0), q0 = get_group_id(1) * BQ;
  const int bh = get_global_id(2), b = bh / heads, h = bh % heads;
  const long bhk = (long)b * kv_heads + h / group;
  __global char* kt_bh = kt + bhk * tiles * BK * HEAD_DIM * DTYPE_SIZE;
  __global char* vt_bh = vt + bhk * tiles * BK * VALUE_DIM * DTYPE_SIZE;
  TC_STAGE_ROWS(qs, q, HEAD_DIM, h, q0);
  TC_STAGE_ROWS(dos, dout, VALUE_DIM, h, q0);
  barrier(CLK_LOCAL_MEM_FENCE);
  const tc_fragment_handle_t q_frag = TC_FRAG_LOCAL(TC_DTYPE_OF(DTYPE), BQ, HEAD_DIM, DTYPE_SIZE, qs);
  const tc_fragment_handle_t do_frag =
      TC_FRAG_LOCAL(TC_DTYPE_OF(DTYPE), BQ, VALUE_DIM, DTYPE_SIZE, dos);
  const tc_fragment_handle_t s_frag = TC_FRAG_LOCAL(TC_DTYPE_float, BQ, BK, 4, st);
  const tc_fragment_handle_t dp_frag = TC_FRAG_LOCAL(TC_DTYPE_float, BQ, BK, 4, dpt);
  tc_fusion_data_t fusion = {0};
  TC_FUSION_VERSION(fusion, 1);
  float dl = 0.0f;
  const int i = q0 + lid;
  const float lse_i = lid < BQ && i < L ? *VIEW_PTR(lse, b, h, i, 0) : -INFINITY;
  const int kend = causal ? clamp(min(L - 1, q0 + BQ - 1) + 1, 0, S) : S;
  for (int k0 = 0; k0 < kend; k0 += BK) {
    TC_BWD_TILE_PRODUCTS(k0);
    for (int j = 0; lid < BQ && j < BK; ++j) {
      float z;
      const float p = tc_bwd_prob(st[lid * BK + j], lse_i, i, k0 + j, L, S, causal, scale, bh,
                                  dropout_p, seed, offset, &z);
      dl += p * z * dpt[lid * BK + j];
    }
    barrier(CLK_LOCAL_MEM_FENCE);
  }
  if (lid < BQ && i < L) *VIEW_PTR(delta, b, h, i, 0) = dl;
}
