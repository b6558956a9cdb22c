/*
 * Tensor-core attention backward: the key and value gradients.
 */
// #include "scaled_dot_product_attention_backward_transpose.cl"

#define ACC_K ((BK * HEAD_DIM + BLOCK_SIZE - 1) / BLOCK_SIZE)
#define ACC_V ((BK * VALUE_DIM + BLOCK_SIZE - 1) / BLOCK_SIZE)

/* One key tile of one (batch, kv head) per group, over the query heads of its group and
 * their query tiles: the scores and dP = dO V^T on the tensor unit, P Z and
 * dS = P (Z dP - delta) into local memory, then dK += dS^T Q and dV += (P Z)^T dO on the
 * tensor unit (the first operand read transposed). dK is scaled at the end.
 * Global (BLOCK_SIZE, key tiles, batch * kv_heads). */
TC_KERNEL_ATTRIBUTES
__kernel void sdpa_backward_kv_tensorcore(DECL_VIEW(const DTYPE, dout), DECL_VIEW(const DTYPE, q),
                                          __global char* kt, __global char* vt,
                                          DECL_VIEW(const float, lse),
                                          DECL_VIEW(const float, delta), DECL_VIEW(DTYPE, dk),
                                          DECL_VIEW(DTYPE, dv), TC_BWD_PARAMS) {
  TC_LOCAL(TC_BITS, qs, BQ * HEAD_DIM);
  TC_LOCAL(TC_BITS, dos, BQ * VALUE_DIM);
  TC_LOCAL(float, st, BQ * BK);
  TC_LOCAL(float, dpt, BQ * BK);
  TC_LOCAL(TC_BITS, dst, BQ * BK);
  TC_LOCAL(TC_BITS, pzt, BQ * BK);
  TC_LOCAL(float, dkt, BK * HEAD_DIM);
  TC_LOCAL(float, dvt, BK * VALUE_DIM);
  __local float lse_row[BQ], delta_row[BQ];
  const int lid = get_local_id(0), k0 = get_group_id(1) * BK;
  const int bhk = get_global_id(2), b = bhk / kv_heads, hk = bhk % kv_heads;
  __global char* kt_bh = kt + (long)bhk * tiles * BK * HEAD_DIM * DTYPE_SIZE;
  __global char* vt_bh = vt + (long)bhk * tiles * BK * VALUE_DIM * DTYPE_SIZE;
  float acc_k[ACC_K], acc_v[ACC_V];
  for (int t = 0; t < ACC_K; ++t) acc_k[t] = 0.0f;
  for (int t = 0; t < ACC_V; ++t) acc_v[t] = 0.0f;
  const tc_fragment_handle_t q_frag = TC_FRAG_LOCAL(TC_DTYPE_OF(DTYPE), BQ, HEAD_DIM, DTYPE_SIZE, qs);
  const tc_fragment_handle_t do_frag =
      TC_FRAG_LOCAL(TC_DTYPE_OF(DTYPE), BQ, VALUE_DIM, DTYPE_SIZE, dos);
  const tc_fragment_handle_t s_frag = TC_FRAG_LOCAL(TC_DTYPE_float, BQ, BK, 4, st);
  const tc_fragment_handle_t dp_frag = TC_FRAG_LOCAL(TC_DTYPE_float, BQ, BK, 4, dpt);
  const tc_fragment_handle_t ds_frag = TC_FRAG_LOCAL(TC_DTYPE_OF(DTYPE), BQ, BK, DTYPE_SIZE, dst);
  const tc_fragment_handle_t pz_frag = TC_FRAG_LOCAL(TC_DTYPE_OF(DTYPE), BQ, BK, DTYPE_SIZE, pzt);
  const tc_fragment_handle_t dk_frag = TC_FRAG_LOCAL(TC_DTYPE_float, BK, HEAD_DIM, 4, dkt);
  const tc_fragment_handle_t dv_frag = TC_FRAG_LOCAL(TC_DTYPE_float, BK, VALUE_DIM, 4, dvt);
  tc_fusion_data_t fusion = {0};
  TC_FUSION_VERSION(fusion, 1);
  /* Query rows before the tile's first key see none of its keys when causal. */
  const int first = causal ? k0 / BQ * BQ : 0;
  for (int h = hk * group; h < (hk + 1) * group; ++h) {
    const ulong bh = (ulong)b * heads + h;
    for (int q0 = first; q0 < L; q0 += BQ) {
      TC_STAGE_ROWS(qs, q, HEAD_DIM, h, q0);
      TC_STAGE_ROWS(dos, dout, VALUE_DIM, h, q0);
      for (int r = lid; r < BQ; r += BLOCK_SIZE) {
        lse_row[r] = q0 + r < L ? *VIEW_PTR(lse, b, h, q0 + r, 0) : -INFINITY;
        delta_row[r] = q0 + r < L ? *VIEW_PTR(delta, b, h, q0 + r, 0) : 0.0f;
      }
      barrier(CLK_LOCAL_MEM_FENCE);
      TC_BWD_TILE_PRODUCTS(k0);
      for (int e = lid; e < BQ * BK; e += BLOCK_SIZE) {
        const int r = e / BK;
        float z;
        const float p = tc_bwd_prob(st[e], lse_row[r], q0 + r, k0 + e - r * BK, L, S, causal,
                                    scale, bh, dropout_p, seed, offset, &z);
        VSTORE(DTYPE, 1, p * (z * dpt[e] - delta_row[r]), (__local DTYPE*)dst + e);
        VSTORE(DTYPE, 1, p * z, (__local DTYPE*)pzt + e);
      }
      barrier(CLK_LOCAL_MEM_FENCE);
      TC_CALL_AND_WAIT(tc_matmul(ds_frag, q_frag, true, false, 0, 0, fusion, dk_frag, TC_EVENT));
      TC_CALL_AND_WAIT(tc_matmul(pz_frag, do_frag, true, false, 0, 0, fusion, dv_frag, TC_EVENT));
      for (int t = 0; t < ACC_K; ++t) {
        const int e = lid + t * BLOCK_SIZE;
        if (e < BK * HEAD_DIM) acc_k[t] += dkt[e];
      }
      for (int t = 0; t < ACC_V; ++t) {
        const int e = lid + t * BLOCK_SIZE;
        if (e < BK * VALUE_DIM) acc_v[t] += dvt[e];
      }
      barrier(CLK_LOCAL_MEM_FENCE);
    }
  }
  for (int t = 0; t < ACC_K; ++t) {
    const int e = lid + t * BLOCK_SIZE, j = e / HEAD_DIM;
    if (e < BK * HEAD_DIM && k0 + j < S) {
      VSTORE(DTYPE, 1, acc_k[t] * scale, VIEW_PTR(dk, b, hk, k0 + j, e - j * HEAD_DIM));
    }
  }
  for (int t = 0; t < ACC_V; ++t) {
    const int e = lid + t * BLOCK_SIZE, j = e / VALUE_DIM;
    if (e < BK * VALUE_DIM && k0 + j < S) {
      VSTORE(DTYPE, 1, acc_v[t], VIEW_PTR(dv, b, hk, k0 + j, e - j * VALUE_DIM));
    }
  }
}
