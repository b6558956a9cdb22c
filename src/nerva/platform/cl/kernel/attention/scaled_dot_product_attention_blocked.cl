/*
 * Scaled dot-product attention, forward, register-blocked for devices that
 * run a work group as a loop on one CPU thread.
 *
 * Build definitions: DTYPE (float or half), HEAD_DIM, VALUE_DIM, TM (query
 * rows per item), WG (items per group).
 *
 * sdpa_pack first lays the keys of every (batch, kv head) out in blocks of
 * BK = 32 keys, each block d-major (kt[bhk][block][d][BK]), and the values as rows
 * of VP floats (vs[bhk][key][VP]), zero past S and past VALUE_DIM. Then each
 * item of sdpa_forward_blocked takes TM query rows and walks the key blocks:
 * the score tile (TM rows x BK keys, one vector per row) takes one key-vector
 * load per TM multiply-adds, the online softmax updates each row's maximum
 * and sum, and the probabilities times the value rows accumulate into TM x VP
 * floats held as vectors. A barrier per block keeps the items of a group on
 * the same block, so the block stays in the cache for all of them.
 *
 * The semantics are those of "scaled_dot_product_attention.cl" (masks,
 * causal limit with its offset, grouped heads, dropout, empty rows).
 */

#define LOAD1(p) VLOAD(DTYPE, 1, p)
#define STORE1(v, p) VSTORE(DTYPE, 1, v, p)
/* Keys per block (two vectors of 16) and value columns padded to vectors. */
#define BK 32
#define VP ((VALUE_DIM + 15) / 16 * 16)
#define NV (VP / 16)
#define KEY_LANES ((int16)(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15))

/* Packs key j, dimension d of (batch, kv head) bhk; global (blocks * BK,
 * max(HEAD_DIM, VP), batch * kv heads). */
__kernel void sdpa_pack(DECL_VIEW(DTYPE, k), DECL_VIEW(DTYPE, v), __global float *kt,
                        __global float *vs, int S, int blocks, int kv_heads) {
  const int j = get_global_id(0), d = get_global_id(1), bh = get_global_id(2);
  if (j >= blocks * BK) return;
  const int b = bh / kv_heads, hk = bh % kv_heads;
  if (d < HEAD_DIM) {
    kt[(((long)bh * blocks + j / BK) * HEAD_DIM + d) * BK + j % BK] =
        j < S ? LOAD1(VIEW_PTR(k, b, hk, j, d)) : 0.0f;
  }
  if (d < VP) {
    vs[((long)bh * blocks * BK + j) * VP + d] =
        j < S && d < VALUE_DIM ? LOAD1(VIEW_PTR(v, b, hk, j, d)) : 0.0f;
  }
}

/* Scores of rows `row` against keys k0 .. k0 + BK (s[2 i], s[2 i + 1]: the
 * two halves of row i): scale * q . k, -inf past S and past the causal limit,
 * then the mask. */
inline void block_scores(float16 *s, const int *row, int k0, __global const float *ktb,
                         DECL_VIEW(DTYPE, q), int b, int h, DECL_VIEW(uchar, mask),
                         int mask_kind, int S, float scale, int causal, int causal_offset) {
  __global const DTYPE *qp[TM];
  float16 t0[TM], t1[TM];
#pragma unroll
  for (int i = 0; i < TM; ++i) {
    qp[i] = VIEW_PTR(q, b, h, row[i], 0);
    t0[i] = (float16)(0.0f);
    t1[i] = (float16)(0.0f);
  }
  for (int d = 0; d < HEAD_DIM; ++d) {
    const float16 k0v = vload16(2 * d, ktb), k1v = vload16(2 * d + 1, ktb);
#pragma unroll
    for (int i = 0; i < TM; ++i) {
      const float16 qv = (float16)(LOAD1(qp[i] + d * q_s3));
      t0[i] = fma(qv, k0v, t0[i]);
      t1[i] = fma(qv, k1v, t1[i]);
    }
  }
  const bool edge = k0 + BK > S || (causal && k0 + BK - 1 > row[0] + causal_offset);
#pragma unroll
  for (int i = 0; i < TM; ++i) {
    s[2 * i] = t0[i] * scale;
    s[2 * i + 1] = t1[i] * scale;
    if (edge) {
      const int16 limit = (int16)(causal ? min(S - 1, row[i] + causal_offset) : S - 1);
      const int16 keys = (int16)(k0) + KEY_LANES;
      s[2 * i] = select(s[2 * i], (float16)(-INFINITY), keys > limit);
      s[2 * i + 1] = select(s[2 * i + 1], (float16)(-INFINITY), keys + (int16)(16) > limit);
    }
    if (mask_kind != MASK_NONE) {
      float lanes[BK];
      vstore16(s[2 * i], 0, lanes);
      vstore16(s[2 * i + 1], 1, lanes);
      for (int j = 0; j < BK && k0 + j < S; ++j) {
        lanes[j] = apply_mask(lanes[j], mask_kind, mask_ptr, VIEW_INDEX(mask, b, h, row[i], k0 + j));
      }
      s[2 * i] = vload16(0, lanes);
      s[2 * i + 1] = vload16(1, lanes);
    }
  }
}

/* Zeroes the dropped probabilities of 16 keys from `index`, scales the kept. */
inline float16 drop_block(float16 p, long index, ulong seed, ulong offset, float dropout_p,
                          float keep_scale) {
  float lanes[16];
  vstore16(p, 0, lanes);
  for (int j = 0; j < 16; ++j) {
    lanes[j] = dropout_keep(index + j, seed, offset, dropout_p) ? lanes[j] * keep_scale : 0.0f;
  }
  return vload16(0, lanes);
}

#define BLOCK_SCORES(s, row, k0)                                                            \
  block_scores(s, row, k0, kt_bh + (long)(k0) * HEAD_DIM, q_ptr, q_off, q_s0, q_s1, q_s2, q_s3, \
               b, h, mask_ptr, mask_off, mask_s0, mask_s1, mask_s2, mask_s3, mask_kind, S,     \
               scale, causal, causal_offset)

__kernel __attribute__((reqd_work_group_size(WG, 1, 1))) void sdpa_forward_blocked(
    DECL_VIEW(DTYPE, q), __global const float *kt, __global const float *vs, int blocks,
    DECL_VIEW(uchar, mask), int mask_kind, DECL_VIEW(DTYPE, out), DECL_VIEW(float, lse),
    DECL_VIEW(DTYPE, attn), int write_attn, int heads, int kv_heads, int L, int S, int group,
    float scale, int causal, int causal_offset, float dropout_p, ulong seed, ulong offset) {
  __local float p_local[WG][TM * BK];
  const int h = get_global_id(1), b = get_global_id(2), hk = h / group;
  const int r0 = (get_group_id(0) * WG + get_local_id(0)) * TM;
  const long bhk = (long)b * kv_heads + hk;
  __global const float *kt_bh = kt + bhk * blocks * BK * HEAD_DIM;
  __global const float *vs_bh = vs + bhk * blocks * BK * VP;
  const float keep_scale = dropout_p >= 1.0f ? 0.0f : 1.0f / (1.0f - dropout_p);
  /* Rows past L repeat the last row: their results are never stored. */
  int row[TM];
  float m[TM], l[TM];
  float16 acc[TM][NV];
#pragma unroll
  for (int i = 0; i < TM; ++i) {
    row[i] = min(r0 + i, L - 1);
    m[i] = -INFINITY;
    l[i] = 0.0f;
#pragma unroll
    for (int c = 0; c < NV; ++c) acc[i][c] = (float16)(0.0f);
  }
  /* Keys past the group's last causal limit take part in no row. */
  const int last = min(L - 1, (int)((get_group_id(0) + 1) * WG * TM - 1));
  const int kend = causal ? clamp(last + causal_offset + 1, 0, S) : S;
  for (int k0 = 0; k0 < kend; k0 += BK) {
    barrier(CLK_GLOBAL_MEM_FENCE);
    if (r0 >= L) continue;
    float16 s[2 * TM];
    BLOCK_SCORES(s, row, k0);
    __local float *pr = p_local[get_local_id(0)];
#pragma unroll
    for (int i = 0; i < TM; ++i) {
      const float m_new = fmax(m[i], hmax16(fmax(s[2 * i], s[2 * i + 1])));
      const float m_use = m_new == -INFINITY ? 0.0f : m_new;
      float16 p0 = exp16(s[2 * i] - m_use), p1 = exp16(s[2 * i + 1] - m_use);
      if (m_new > m[i]) {
        const float alpha = exp(m[i] - m_use);
        l[i] *= alpha;
#pragma unroll
        for (int c = 0; c < NV; ++c) acc[i][c] *= alpha;
        m[i] = m_new;
      }
      l[i] += hsum16(p0 + p1);
      if (dropout_p > 0.0f) {
        const long index = ((long)(b * heads + h) * L + row[i]) * S + k0;
        p0 = drop_block(p0, index, seed, offset, dropout_p, keep_scale);
        p1 = drop_block(p1, index + 16, seed, offset, dropout_p, keep_scale);
      }
      vstore16(p0, 2 * i, pr);
      vstore16(p1, 2 * i + 1, pr);
    }
    /* acc += p v, 32 value columns at a time: each probability, broadcast
     * from the item's slot of local memory, times its value row. */
    __global const float *vb = vs_bh + (long)k0 * VP;
#pragma unroll
    for (int c0 = 0; c0 < NV; c0 += 2) {
      for (int j = 0; j < BK; ++j) {
#pragma unroll
        for (int c = c0; c < c0 + 2 && c < NV; ++c) {
          const float16 vv = vload16(j * NV + c, vb);
#pragma unroll
          for (int i = 0; i < TM; ++i) acc[i][c] = fma((float16)(pr[i * BK + j]), vv, acc[i][c]);
        }
      }
    }
  }
  for (int i = 0; i < TM && r0 + i < L; ++i) {
    const float inv = S == 0 ? 0.0f : 1.0f / l[i];
    float o[VP];
#pragma unroll
    for (int c = 0; c < NV; ++c) vstore16(acc[i][c] * inv, c, o);
    for (int d = 0; d < VALUE_DIM; ++d) STORE1(o[d], VIEW_PTR(out, b, h, r0 + i, d));
    *VIEW_PTR(lse, b, h, r0 + i, 0) = m[i] + log(l[i]);
  }
  if (!write_attn || r0 >= L) return;
  /* The probabilities (after dropout) from the final logsumexp. */
  for (int k0 = 0; k0 < S; k0 += BK) {
    float16 s[2 * TM];
    BLOCK_SCORES(s, row, k0);
    for (int i = 0; i < TM && r0 + i < L; ++i) {
      const int16 limit = (int16)(causal ? row[i] + causal_offset : S);
      const float16 lse_row = (float16)(m[i] + log(l[i]));
      float lanes[BK];
      for (int hv = 0; hv < 2; ++hv) {
        float16 p = exp16(s[2 * i + hv] - lse_row);
        p = select(p, (float16)(0.0f), (int16)(k0 + 16 * hv) + KEY_LANES > limit);
        if (dropout_p > 0.0f) {
          const long index = ((long)(b * heads + h) * L + row[i]) * S + k0 + 16 * hv;
          p = drop_block(p, index, seed, offset, dropout_p, keep_scale);
        }
        vstore16(p, hv, lanes);
      }
      for (int j = 0; j < BK && k0 + j < S; ++j) {
        STORE1(lanes[j], VIEW_PTR(attn, b, h, row[i], k0 + j));
      }
    }
  }
}
