/*
 * Scaled dot-product attention, forward, on the tensor unit, with an online softmax.
 */
// #include "common.h"
// #include "random.h"
// #include "attention.h"
// #include "tc_common.h"
#pragma OPENCL EXTENSION cl_nrv_tensorcore : enable
#include "cl_nrv_tc_ext.h"
#include "cl_nrv_tc_lib.h"

#ifndef DTYPE
#error: Missing DTYPE
#endif
#ifndef DTYPE_SIZE
#error: Missing DTYPE_SIZE
#endif
#ifndef HEAD_DIM
#error: Missing HEAD_DIM
#endif
#ifndef VALUE_DIM
#error: Missing VALUE_DIM
#endif
#ifndef BQ
#error: Missing BQ
#endif
#ifndef BK
#error: Missing BK
#endif

/* Output elements of the query tile each work-item accumulates. */
#define ACC_N ((BQ * VALUE_DIM + BLOCK_SIZE - 1) / BLOCK_SIZE)

/* The query tile (BQ x HEAD_DIM, zero past L) into local memory as raw bits. */
#define STAGE_QUERY(qs, q0)                                                               \
  for (int e = get_local_id(0); e < BQ * HEAD_DIM; e += BLOCK_SIZE) {                     \
    const int r = e / HEAD_DIM, d = e - r * HEAD_DIM;                                     \
    qs[e] = (q0) + r < L ? *(__global TC_BITS*)VIEW_PTR(q, b, h, (q0) + r, d) : (TC_BITS)0; \
  }

/* Scores of the query tile against keys k0 .. k0 + BK into the local float tile. */
#define TILE_SCORES(k0)                                                                          \
  TC_CALL_AND_WAIT(tc_matmul(                                                                    \
      q_frag,                                                                                    \
      TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(DTYPE), HEAD_DIM, BK,                \
                          BK * DTYPE_SIZE, kt_bh + (long)(k0) * HEAD_DIM * DTYPE_SIZE),          \
      false, false, 0, 0, fusion, s_frag, TC_EVENT))

/*
 * A group takes BQ query rows of one (batch, head) and walks the key tiles
 * packed by sdpa_pack_tensorcore: scores = Q K^T on the tensor unit into
 * local memory, the online softmax row by row (running maximum and sum, the
 * factor alpha that rescales the rows' accumulated outputs), then
 * P V on the tensor unit, added to the outputs each work-item keeps.
 * Semantics as "scaled_dot_product_attention.cl": query heads h share key
 * head h / group; key j takes part in row i when j < S, (causal)
 * j <= i + causal_offset and the mask lets it; a row no key takes part in
 * gets NaN and logsumexp -inf (an empty key set gives zeros); dropout zeroes
 * a probability with probability p and scales the kept ones by 1 / (1 - p),
 * the normaliser being that of the undropped probabilities. With write_attn
 * a second pass writes the probabilities (after dropout) from logsumexp.
 * Global (BLOCK_SIZE, query tiles, batch * heads).
 */
TC_KERNEL_ATTRIBUTES
__kernel void sdpa_forward_tensorcore(DECL_VIEW(DTYPE, q), __global char* kt, __global char* vp,
                                      int tiles, DECL_VIEW(uchar, mask), int mask_kind,
                                      DECL_VIEW(DTYPE, out), DECL_VIEW(float, lse),
                                      DECL_VIEW(DTYPE, attn), int write_attn, int heads,
                                      int kv_heads, int L, int S, int group, float scale,
                                      int causal, int causal_offset, float dropout_p, ulong seed,
                                      ulong offset) {
  TC_LOCAL(TC_BITS, qs, BQ * HEAD_DIM);
  TC_LOCAL(float, st, BQ * BK);
  TC_LOCAL(TC_BITS, pt, BQ * BK);
  TC_LOCAL(float, pv, BQ * VALUE_DIM);
  __local float m_row[BQ], l_row[BQ], a_row[BQ];
  const int lid = get_local_id(0);
  const int q0 = get_group_id(1) * BQ;
  const int bh = get_global_id(2), b = bh / heads, h = bh % heads;
  const long bhk = (long)b * kv_heads + h / group;
  __global char* kt_bh = kt + bhk * tiles * BK * HEAD_DIM * DTYPE_SIZE;
  __global char* v_bh = vp + bhk * tiles * BK * VALUE_DIM * DTYPE_SIZE;
  const float keep_scale = dropout_p >= 1.0f ? 0.0f : 1.0f / (1.0f - dropout_p);

  STAGE_QUERY(qs, q0);
  for (int r = lid; r < BQ; r += BLOCK_SIZE) {
    m_row[r] = -INFINITY;
    l_row[r] = 0.0f;
  }
  float acc[ACC_N];
  for (int t = 0; t < ACC_N; ++t) acc[t] = 0.0f;
  barrier(CLK_LOCAL_MEM_FENCE);
  const tc_fragment_handle_t q_frag = TC_WRAP_FRAGMENT_2D(
      TC_SPACE_SPEC_LOCAL, TC_DTYPE_OF(DTYPE), BQ, HEAD_DIM, HEAD_DIM * DTYPE_SIZE, qs);
  const tc_fragment_handle_t s_frag =
      TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_LOCAL, TC_DTYPE_float, BQ, BK, BK * 4, st);
  const tc_fragment_handle_t p_frag =
      TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_LOCAL, TC_DTYPE_OF(DTYPE), BQ, BK, BK * DTYPE_SIZE, pt);
  const tc_fragment_handle_t o_frag = TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_LOCAL, TC_DTYPE_float, BQ,
                                                          VALUE_DIM, VALUE_DIM * 4, pv);
  tc_fusion_data_t fusion = {0};
  TC_FUSION_VERSION(fusion, 1);

  /* Keys past the group's last causal limit take part in no row. */
  const int last = min(L - 1, q0 + BQ - 1);
  const int kend = causal ? clamp(last + causal_offset + 1, 0, S) : S;
  for (int k0 = 0; k0 < kend; k0 += BK) {
    TILE_SCORES(k0);
    for (int r = lid; r < BQ; r += BLOCK_SIZE) {
      const int i = q0 + r;
      __local float* s = st + r * BK;
      __local DTYPE* p = (__local DTYPE*)(pt + r * BK);
      float m = m_row[r], l = l_row[r], tile_max = -INFINITY;
      for (int j = 0; j < BK; ++j) {
        const int key = k0 + j;
        float x = -INFINITY;
        if (i < L && key < S && (!causal || key <= i + causal_offset)) {
          x = apply_mask(s[j] * scale, mask_kind, mask_ptr, VIEW_INDEX(mask, b, h, i, key));
        }
        s[j] = x;
        tile_max = fmax(tile_max, x);
      }
      const float m_new = fmax(m, tile_max);
      float alpha = 1.0f;
      if (m_new != -INFINITY) {
        alpha = exp(m - m_new);
        l *= alpha;
      }
      const ulong row_index = ((ulong)bh * (ulong)L + (ulong)i) * (ulong)S + (ulong)k0;
      for (int j = 0; j < BK; ++j) {
        float x = m_new == -INFINITY ? 0.0f : exp(s[j] - m_new);
        l += x;
        if (dropout_p > 0.0f && x != 0.0f) {
          x = dropout_keep(row_index + j, seed, offset, dropout_p) ? x * keep_scale : 0.0f;
        }
        VSTORE(DTYPE, 1, x, p + j);
      }
      m_row[r] = m_new;
      l_row[r] = l;
      a_row[r] = alpha;
    }
    barrier(CLK_LOCAL_MEM_FENCE);
    TC_CALL_AND_WAIT(tc_matmul(
        p_frag,
        TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(DTYPE), BK, VALUE_DIM,
                            VALUE_DIM * DTYPE_SIZE, v_bh + (long)k0 * VALUE_DIM * DTYPE_SIZE),
        false, false, 0, 0, fusion, o_frag, TC_EVENT));
    for (int t = 0; t < ACC_N; ++t) {
      const int e = lid + t * BLOCK_SIZE;
      if (e < BQ * VALUE_DIM) acc[t] = acc[t] * a_row[e / VALUE_DIM] + pv[e];
    }
    barrier(CLK_LOCAL_MEM_FENCE);
  }
  for (int t = 0; t < ACC_N; ++t) {
    const int e = lid + t * BLOCK_SIZE, r = e / VALUE_DIM;
    if (e < BQ * VALUE_DIM && q0 + r < L) {
      const float inv = S == 0 ? 0.0f : 1.0f / l_row[r];
      VSTORE(DTYPE, 1, acc[t] * inv, VIEW_PTR(out, b, h, q0 + r, e - r * VALUE_DIM));
    }
  }
  for (int r = lid; r < BQ; r += BLOCK_SIZE) {
    if (q0 + r < L) *VIEW_PTR(lse, b, h, q0 + r, 0) = m_row[r] + log(l_row[r]);
  }
  if (!write_attn) return;
  for (int k0 = 0; k0 < S; k0 += BK) {
    TILE_SCORES(k0);
    for (int e = lid; e < BQ * BK; e += BLOCK_SIZE) {
      const int r = e / BK, i = q0 + r, key = k0 + e - r * BK;
      if (i >= L || key >= S) continue;
      float x = 0.0f;
      if (!causal || key <= i + causal_offset) {
        const float s =
            apply_mask(st[e] * scale, mask_kind, mask_ptr, VIEW_INDEX(mask, b, h, i, key));
        x = exp(s - (m_row[r] + log(l_row[r])));
        if (dropout_p > 0.0f) {
          const ulong index = ((ulong)bh * (ulong)L + (ulong)i) * (ulong)S + (ulong)key;
          x = dropout_keep(index, seed, offset, dropout_p) ? x * keep_scale : 0.0f;
        }
      }
      VSTORE(DTYPE, 1, x, VIEW_PTR(attn, b, h, i, key));
    }
    barrier(CLK_LOCAL_MEM_FENCE);
  }
}
