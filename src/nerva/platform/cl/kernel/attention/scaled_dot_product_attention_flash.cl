/*
 * Scaled dot-product attention, forward, flash-attention style for GPUs.
 *
 * Build definitions: DTYPE (float or half), HEAD_DIM (<= 64), VALUE_DIM
 * (<= 64), DROPOUT (1: dropout_p > 0; its Philox draws would otherwise take
 * registers from the launches without dropout).
 *
 * A group of 128 items (16 x 8) owns BQ = 64 query rows of one (batch, head)
 * and streams the keys in tiles of BK = 64 through local memory. Item (tx, ty)
 * holds a register block of scores, rows ty * 8 .. + 8 by keys tx * 4 .. + 4,
 * and of the output, the same rows by value columns tx * 4 .. + 4 (one float4
 * per row). Per key tile:
 *   1. the key tile, d-major, into local memory; scores = (scale q) k^T from
 *      float4 reads of the d-major query and key tiles (32 multiply-adds per
 *      three local reads), then the bounds, causal limit and mask;
 *   2. each item's row maxima through local memory to the row maximum of the
 *      tile; the new maximum rescales the accumulators and the item's share
 *      of the row sum; the probabilities (after dropout) go to local memory;
 *   3. the value tile into local memory; acc += p v, again 32 multiply-adds
 *      per three local reads.
 * Scores never reach global memory; they are kept in log2 units (the query
 * scaled by log2 e), so exp2 gives the probabilities. The next key tile and
 * the value tile are loaded into registers one phase ahead. At the end the
 * items of a row add their shares of the sum.
 *
 * The semantics are those of "scaled_dot_product_attention.cl" (masks, causal
 * limit with its offset, grouped heads, dropout, empty rows, logsumexp).
 */

#define BQ 64
#define BK 64
#define TX 16 /* items along keys / value columns */
#define TY 8  /* items along rows */
#define TM 8  /* rows per item */
#define VP 64 /* value columns held (TX * 4) */
#define LOAD1(p) VLOAD(DTYPE, 1, p)
#define LOAD4(p) VLOAD(DTYPE, 4, p)
#define STORE1(v, p) VSTORE(DTYPE, 1, v, p)

/* Probability of key j, row r in the tile: rows in float4 groups, the group
 * index swizzled by the key's quad so that the 16 items writing one row group
 * hit different banks. */
#define P_INDEX(j, g) ((j) * BQ + (((g) ^ (((j) >> 2) & (BQ / 4 - 1))) << 2))

/* Quads per item of the key tile (4 dimensions of one key) and of the value
 * tile (4 columns of one key). */
#define K_QUADS ((BK * ((HEAD_DIM + 3) / 4) + TX * TY - 1) / (TX * TY))
#define V_QUADS (BK * VP / 4 / (TX * TY))

/* Elements n .. n + 4 of row `key` of a key or value view (`dim` columns),
 * zero past S and past `dim`: one vector load where the row is contiguous. */
#define LOAD_QUAD(name, key, n, dim, vec)                                      \
  load_quad(name##_ptr, VIEW_INDEX(name, b, hk, key, n), name##_s3, (key) < S, \
            (n), (dim), (vec))
inline float4 load_quad(__global const DTYPE *p, long idx, long stride, bool valid, int n,
                        int dim, bool vec) {
  if (!valid || n >= dim) return (float4)(0.0f);
  if (vec) return LOAD4(p + idx);
  float lanes[4];
  for (int t = 0; t < 4; ++t) lanes[t] = n + t < dim ? LOAD1(p + idx + t * stride) : 0.0f;
  return vload4(0, lanes);
}

/* The additive mask in the base-2 domain of the scores. */
inline float mask_log2(float s, int kind, __global const uchar *mask, long idx) {
  return kind == MASK_BOOL ? apply_mask(s, kind, mask, idx)
                           : fma(apply_mask(0.0f, kind, mask, idx), M_LOG2E_F, s);
}

__kernel __attribute__((reqd_work_group_size(TX * TY, 1, 1))) void sdpa_forward_flash(
    DECL_VIEW(DTYPE, q), DECL_VIEW(DTYPE, k), DECL_VIEW(DTYPE, v), DECL_VIEW(uchar, mask),
    int mask_kind, DECL_VIEW(DTYPE, out), DECL_VIEW(float, lse), int heads, int L, int S,
    int group, float scale, int causal, int causal_offset, float dropout_p, ulong seed,
    ulong offset) {
  /* qs: the scaled query tile, d-major. A: key tile (d-major), then the
   * probabilities. B: the row maxima / sums, then the value tile. */
  __local float qs[HEAD_DIM * BQ] __attribute__((aligned(16)));
  __local float tile_a[HEAD_DIM * BK > BK * BQ ? HEAD_DIM * BK : BK * BQ]
      __attribute__((aligned(16)));
  __local float tile_b[BK * VP] __attribute__((aligned(16)));
  const int lid = get_local_id(0), tx = lid % TX, ty = lid / TX;
  const int r_group = get_group_id(0) * BQ;
  const int h = get_global_id(1), b = get_global_id(2), hk = h / group;
  const int r0 = r_group + ty * TM; /* the item's first row */
  const float keep_scale = dropout_p >= 1.0f ? 0.0f : 1.0f / (1.0f - dropout_p);
  const bool k_vec = k_s3 == 1 && HEAD_DIM % 4 == 0;
  const bool v_vec = v_s3 == 1 && VALUE_DIM % 4 == 0;

  /* The query tile, scaled into the base-2 domain (scores in log2 units, so
   * that exp2 gives the probabilities), rows past L repeating the last row. */
  const float qscale = scale * M_LOG2E_F;
  for (int e = lid; e < HEAD_DIM * BQ; e += TX * TY) {
    const int r = e % BQ, d = e / BQ;
    qs[e] = LOAD1(VIEW_PTR(q, b, h, min(r_group + r, L - 1), d)) * qscale;
  }

  float4 acc[TM];
  float m[TM], l[TM];
#pragma unroll
  for (int i = 0; i < TM; ++i) {
    acc[i] = (float4)(0.0f);
    l[i] = 0.0f;
    m[i] = -INFINITY;
  }
  /* Keys past the group's last causal limit take part in no row. */
  const int last = min(L - 1, r_group + BQ - 1);
  const int kend = causal ? clamp(last + causal_offset + 1, 0, S) : S;
  /* Key and value tiles pass through registers one phase ahead: the loads of
   * the next key tile are in flight during the product with the values, those
   * of the value tile during the softmax. Consecutive items take consecutive
   * keys of the key tile and consecutive columns of the value tile. */
  float4 kreg[K_QUADS], vreg[V_QUADS];
#pragma unroll
  for (int t = 0; t < K_QUADS; ++t) {
    const int e = lid + t * TX * TY;
    kreg[t] = LOAD_QUAD(k, e % BK, (e / BK) * 4, HEAD_DIM, k_vec);
  }
  for (int k0 = 0; k0 < kend; k0 += BK) {
    barrier(CLK_LOCAL_MEM_FENCE);
#pragma unroll
    for (int t = 0; t < K_QUADS; ++t) {
      const int e = lid + t * TX * TY, j = e % BK, d = (e / BK) * 4;
      if (d < HEAD_DIM) {
        tile_a[d * BK + j] = kreg[t].x;
        tile_a[(d + 1) * BK + j] = kreg[t].y;
        tile_a[(d + 2) * BK + j] = kreg[t].z;
        tile_a[(d + 3) * BK + j] = kreg[t].w;
      }
    }
    barrier(CLK_LOCAL_MEM_FENCE);

    float4 s[TM];
#pragma unroll
    for (int i = 0; i < TM; ++i) s[i] = (float4)(0.0f);
#pragma unroll 8
    for (int d = 0; d < HEAD_DIM; ++d) {
      const float4 qa = vload4(0, qs + d * BQ + ty * TM);
      const float4 qb = vload4(0, qs + d * BQ + ty * TM + 4);
      const float4 kv = vload4(0, tile_a + d * BK + tx * 4);
      s[0] = fma((float4)(qa.x), kv, s[0]);
      s[1] = fma((float4)(qa.y), kv, s[1]);
      s[2] = fma((float4)(qa.z), kv, s[2]);
      s[3] = fma((float4)(qa.w), kv, s[3]);
      s[4] = fma((float4)(qb.x), kv, s[4]);
      s[5] = fma((float4)(qb.y), kv, s[5]);
      s[6] = fma((float4)(qb.z), kv, s[6]);
      s[7] = fma((float4)(qb.w), kv, s[7]);
    }
    /* Bounds and causal limit where the tile crosses them, then the mask. */
    const int key0 = k0 + tx * 4;
    const bool edge = key0 + 3 >= S || (causal && key0 + 3 > r0 + causal_offset);
#pragma unroll
    for (int i = 0; i < TM; ++i) {
      const int row = min(r0 + i, L - 1);
      if (edge) {
        const int limit = causal ? min(S - 1, row + causal_offset) : S - 1;
        const int4 keys = (int4)(key0) + (int4)(0, 1, 2, 3);
        s[i] = select(s[i], (float4)(-INFINITY), keys > (int4)(limit));
      }
      if (mask_kind != MASK_NONE) {
        const long base = VIEW_INDEX(mask, b, h, row, 0);
        if (key0 < S) s[i].x = mask_log2(s[i].x, mask_kind, mask_ptr, base + key0 * mask_s3);
        if (key0 + 1 < S)
          s[i].y = mask_log2(s[i].y, mask_kind, mask_ptr, base + (key0 + 1) * mask_s3);
        if (key0 + 2 < S)
          s[i].z = mask_log2(s[i].z, mask_kind, mask_ptr, base + (key0 + 2) * mask_s3);
        if (key0 + 3 < S)
          s[i].w = mask_log2(s[i].w, mask_kind, mask_ptr, base + (key0 + 3) * mask_s3);
      }
    }
#pragma unroll
    for (int t = 0; t < V_QUADS; ++t) {
      const int e = lid + t * TX * TY;
      vreg[t] = LOAD_QUAD(v, k0 + e / (VP / 4), (e % (VP / 4)) * 4, VALUE_DIM, v_vec);
    }
    /* Row maxima of the tile: each item's share into B (free since the last
     * product), then every item reads its rows' 16 shares. */
#pragma unroll
    for (int i = 0; i < TM; ++i) {
      const float2 a = fmax(s[i].lo, s[i].hi);
      tile_b[(ty * TM + i) * TX + tx] = fmax(a.x, a.y);
    }
    barrier(CLK_LOCAL_MEM_FENCE);
#pragma unroll
    for (int i = 0; i < TM; ++i) {
      const __local float *red = tile_b + (ty * TM + i) * TX;
      const float4 a = fmax(fmax(vload4(0, red), vload4(1, red)),
                            fmax(vload4(2, red), vload4(3, red)));
      const float2 c = fmax(a.lo, a.hi);
      const float m_new = fmax(m[i], fmax(c.x, c.y));
      const float m_use = m_new == -INFINITY ? 0.0f : m_new;
      const float alpha = exp2(m[i] - m_use);
      m[i] = m_new;
      acc[i] *= alpha;
      float4 p = exp2(s[i] - (float4)(m_use));
      const float2 ps = p.lo + p.hi;
      l[i] = fma(l[i], alpha, ps.x + ps.y);
#if DROPOUT
      {
        const ulong index = ((ulong)(b * heads + h) * (ulong)L + (ulong)min(r0 + i, L - 1)) *
                                (ulong)S + (ulong)key0;
        p.x = dropout_keep(index, seed, offset, dropout_p) ? p.x * keep_scale : 0.0f;
        p.y = dropout_keep(index + 1, seed, offset, dropout_p) ? p.y * keep_scale : 0.0f;
        p.z = dropout_keep(index + 2, seed, offset, dropout_p) ? p.z * keep_scale : 0.0f;
        p.w = dropout_keep(index + 3, seed, offset, dropout_p) ? p.w * keep_scale : 0.0f;
      }
#endif
      s[i] = p;
    }
    barrier(CLK_LOCAL_MEM_FENCE);
    /* Probabilities, key-major, into A; the value tile into B. */
#pragma unroll
    for (int jj = 0; jj < 4; ++jj) {
      const int j = tx * 4 + jj;
      const float4 pa = (float4)(s[0].s0, s[1].s0, s[2].s0, s[3].s0);
      const float4 pb = (float4)(s[4].s0, s[5].s0, s[6].s0, s[7].s0);
      vstore4(pa, 0, tile_a + P_INDEX(j, ty * 2));
      vstore4(pb, 0, tile_a + P_INDEX(j, ty * 2 + 1));
#pragma unroll
      for (int i = 0; i < TM; ++i) s[i] = s[i].s1230;
    }
#pragma unroll
    for (int t = 0; t < V_QUADS; ++t) {
      const int e = lid + t * TX * TY;
      vstore4(vreg[t], 0, tile_b + (e / (VP / 4)) * VP + (e % (VP / 4)) * 4);
    }
    barrier(CLK_LOCAL_MEM_FENCE);
    if (k0 + BK < kend) {
#pragma unroll
      for (int t = 0; t < K_QUADS; ++t) {
        const int e = lid + t * TX * TY;
        kreg[t] = LOAD_QUAD(k, k0 + BK + e % BK, (e / BK) * 4, HEAD_DIM, k_vec);
      }
    }
#pragma unroll 8
    for (int j = 0; j < BK; ++j) {
      const float4 pa = vload4(0, tile_a + P_INDEX(j, ty * 2));
      const float4 pb = vload4(0, tile_a + P_INDEX(j, ty * 2 + 1));
      const float4 vv = vload4(0, tile_b + j * VP + tx * 4);
      acc[0] = fma((float4)(pa.x), vv, acc[0]);
      acc[1] = fma((float4)(pa.y), vv, acc[1]);
      acc[2] = fma((float4)(pa.z), vv, acc[2]);
      acc[3] = fma((float4)(pa.w), vv, acc[3]);
      acc[4] = fma((float4)(pb.x), vv, acc[4]);
      acc[5] = fma((float4)(pb.y), vv, acc[5]);
      acc[6] = fma((float4)(pb.z), vv, acc[6]);
      acc[7] = fma((float4)(pb.w), vv, acc[7]);
    }
  }
  /* Row sums: the 16 items' shares through B. */
  barrier(CLK_LOCAL_MEM_FENCE);
#pragma unroll
  for (int i = 0; i < TM; ++i) tile_b[(ty * TM + i) * TX + tx] = l[i];
  barrier(CLK_LOCAL_MEM_FENCE);
#pragma unroll
  for (int i = 0; i < TM; ++i) {
    const int row = r0 + i;
    if (row >= L) break;
    const __local float *red = tile_b + (ty * TM + i) * TX;
    const float4 a = (vload4(0, red) + vload4(1, red)) + (vload4(2, red) + vload4(3, red));
    const float sum = (a.x + a.y) + (a.z + a.w);
    const float4 o = acc[i] * (S == 0 ? 0.0f : 1.0f / sum);
    const int c = tx * 4;
    if (c + 3 < VALUE_DIM && out_s3 == 1) {
      VSTORE(DTYPE, 4, o, VIEW_PTR(out, b, h, row, c));
    } else {
      if (c < VALUE_DIM) STORE1(o.x, VIEW_PTR(out, b, h, row, c));
      if (c + 1 < VALUE_DIM) STORE1(o.y, VIEW_PTR(out, b, h, row, c + 1));
      if (c + 2 < VALUE_DIM) STORE1(o.z, VIEW_PTR(out, b, h, row, c + 2));
      if (c + 3 < VALUE_DIM) STORE1(o.w, VIEW_PTR(out, b, h, row, c + 3));
    }
    if (tx == 0) *VIEW_PTR(lse, b, h, row, 0) = (m[i] + log2(sum)) * M_LN2_F;
  }
}
