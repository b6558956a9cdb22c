/*
 * Scaled dot-product attention, forward, with an online softmax.
 *
 * Build definitions: DTYPE (float or half), HEAD_DIM (query/key size),
 * VALUE_DIM (value size), BQ (queries per group = group size), BK (keys per
 * tile).
 *
 * A group takes BQ consecutive query rows of one (batch, head); each item owns
 * one row. Key and value tiles of BK rows pass through local memory; every
 * item keeps its running maximum, sum and output row, rescaling them when the
 * maximum grows, so memory does not grow with the key length.
 *
 * Query heads h share key/value head h / group. Key j takes part in row i when
 * j < S, (causal) j <= i + causal_offset, and the mask lets it. A row no key
 * takes part in gets NaN (an empty key set gives zeros) and logsumexp -inf.
 * Dropout zeroes a probability with probability p and scales the kept ones by
 * 1 / (1 - p); the normaliser is that of the undropped probabilities.
 */

#define LOAD1(p) VLOAD(DTYPE, 1, p)
#define STORE1(v, p) VSTORE(DTYPE, 1, v, p)

__kernel __attribute__((reqd_work_group_size(BQ, 1, 1))) void sdpa_forward(
    DECL_VIEW(DTYPE, q), DECL_VIEW(DTYPE, k), DECL_VIEW(DTYPE, v), DECL_VIEW(uchar, mask),
    int mask_kind, DECL_VIEW(DTYPE, out), DECL_VIEW(float, lse), DECL_VIEW(DTYPE, attn),
    int write_attn, int heads, int L, int S, int group, float scale, int causal,
    int causal_offset, float dropout_p, ulong seed, ulong offset) {
  __local float ks[BK][HEAD_DIM];
  __local float vs[BK][VALUE_DIM];
#define KS(j, d) ks[j][d]
#define VS(j, d) vs[j][d]
  const int lid = get_local_id(0);
  const int i = get_group_id(0) * BQ + lid;
  const int h = get_global_id(1), b = get_global_id(2);
  const int hk = h / group;
  const bool active = i < L;
  const int row = active ? i : L - 1;
  const float keep_scale = dropout_p >= 1.0f ? 0.0f : 1.0f / (1.0f - dropout_p);
  const ulong row_index = ((ulong)(b * heads + h) * (ulong)L + (ulong)row) * (ulong)S;

  float qr[HEAD_DIM];
  float acc[VALUE_DIM];
  float sc[BK];
  for (int d = 0; d < HEAD_DIM; ++d) qr[d] = LOAD1(VIEW_PTR(q, b, h, row, d)) * scale;
  for (int d = 0; d < VALUE_DIM; ++d) acc[d] = 0.0f;
  float m = -INFINITY, l = 0.0f;

  /* Keys past the group's last causal limit take part in no row. */
  const int last = min(L - 1, (int)(get_group_id(0) * BQ + BQ - 1));
  const int kend = causal ? clamp(last + causal_offset + 1, 0, S) : S;
  for (int k0 = 0; k0 < kend; k0 += BK) {
    barrier(CLK_LOCAL_MEM_FENCE);
    for (int e = lid; e < BK * HEAD_DIM; e += BQ) {
      const int j = e / HEAD_DIM, d = e - j * HEAD_DIM;
      ks[j][d] = k0 + j < S ? LOAD1(VIEW_PTR(k, b, hk, k0 + j, d)) : 0.0f;
    }
    for (int e = lid; e < BK * VALUE_DIM; e += BQ) {
      const int j = e / VALUE_DIM, d = e - j * VALUE_DIM;
      vs[j][d] = k0 + j < S ? LOAD1(VIEW_PTR(v, b, hk, k0 + j, d)) : 0.0f;
    }
    barrier(CLK_LOCAL_MEM_FENCE);
    if (active) {
      float tile_max = -INFINITY;
      for (int j = 0; j < BK; ++j) {
        const int key = k0 + j;
        float s = -INFINITY;
        if (key < S && (!causal || key <= i + causal_offset)) {
          float dot = 0.0f;
          for (int d = 0; d < HEAD_DIM; ++d) dot += qr[d] * KS(j, d);
          s = apply_mask(dot, mask_kind, mask_ptr, VIEW_INDEX(mask, b, h, i, key));
        }
        sc[j] = s;
        tile_max = fmax(tile_max, s);
      }
      const float m_new = fmax(m, tile_max);
      if (m_new != -INFINITY) {
        const float alpha = exp(m - m_new);
        l *= alpha;
        for (int d = 0; d < VALUE_DIM; ++d) acc[d] *= alpha;
        for (int j = 0; j < BK; ++j) {
          float p = exp(sc[j] - m_new);
          l += p;
          if (dropout_p > 0.0f) {
            p = dropout_keep(row_index + k0 + j, seed, offset, dropout_p) ? p * keep_scale : 0.0f;
          }
          if (p != 0.0f) {
            for (int d = 0; d < VALUE_DIM; ++d) acc[d] += p * VS(j, d);
          }
        }
        m = m_new;
      }
    }
  }
  if (!active) return;
  const float inv = S == 0 ? 0.0f : 1.0f / l;
  for (int d = 0; d < VALUE_DIM; ++d) STORE1(acc[d] * inv, VIEW_PTR(out, b, h, i, d));
  const float lse_row = m + log(l);
  *VIEW_PTR(lse, b, h, i, 0) = lse_row;
  if (!write_attn) return;
  /* The probabilities (after dropout) from the final logsumexp. */
  for (int key = 0; key < S; ++key) {
    float p = 0.0f;
    if (!causal || key <= i + causal_offset) {
      float dot = 0.0f;
      for (int d = 0; d < HEAD_DIM; ++d) dot += qr[d] * LOAD1(VIEW_PTR(k, b, hk, key, d));
      const float s = apply_mask(dot, mask_kind, mask_ptr, VIEW_INDEX(mask, b, h, i, key));
      p = exp(s - lse_row);
      if (dropout_p > 0.0f) {
        p = dropout_keep(row_index + key, seed, offset, dropout_p) ? p * keep_scale : 0.0f;
      }
    }
    STORE1(p, VIEW_PTR(attn, b, h, i, key));
  }
}
