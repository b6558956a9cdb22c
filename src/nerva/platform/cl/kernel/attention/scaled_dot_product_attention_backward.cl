/*
 * Scaled dot-product attention, backward, recomputing the probabilities.
 *
 * Build definitions: DTYPE, HEAD_DIM, VALUE_DIM, BQ (group size).
 *
 * The probability P[i][j] comes from the saved probabilities (`from_lse` 0)
 * or from the scores and the saved logsumexp (`from_lse` 1). With dropout
 * factor Z[i][j] (0 or 1 / (1 - p), redrawn as in the forward):
 *   dP[i][j] = Z[i][j] * (dO[i] . V[j]),  delta[i] = sum_j P[i][j] dP[i][j],
 *   dS[i][j] = P[i][j] (dP[i][j] - delta[i]),
 *   dQ[i] = scale sum_j dS[i][j] K[j],  dK[j] = scale sum_i dS[i][j] Q[i],
 *   dV[j] = sum_i P[i][j] Z[i][j] dO[i].
 * sdpa_backward_query owns a query row (delta, dQ, and the optional dP and dS
 * rows); sdpa_backward_kv owns a key row of a key/value head and sums over
 * the query heads of its group, so no two items write one element.
 */

#define LOAD1(p) VLOAD(DTYPE, 1, p)
#define STORE1(v, p) VSTORE(DTYPE, 1, v, p)

typedef struct {
  int heads, L, S, group, causal, causal_offset, from_lse;
  float scale, dropout_p;
  ulong seed, offset;
} sdpa_params;

/* P[i][j] * Z[i][j] split: returns P, sets *z to the dropout factor. */
inline float probability(const sdpa_params *pr, const float *qr, DECL_VIEW(const DTYPE, k),
                         DECL_VIEW(const DTYPE, probs), DECL_VIEW(const float, lse), int b, int h,
                         int i, int j, float *z) {
  *z = 1.0f;
  if (pr->causal && j > i + pr->causal_offset) return 0.0f;
  if (pr->dropout_p > 0.0f) {
    const ulong idx = ((ulong)(b * pr->heads + h) * (ulong)pr->L + (ulong)i) * (ulong)pr->S + j;
    *z = dropout_keep(idx, pr->seed, pr->offset, pr->dropout_p)
             ? (pr->dropout_p >= 1.0f ? 0.0f : 1.0f / (1.0f - pr->dropout_p))
             : 0.0f;
  }
  if (!pr->from_lse) return LOAD1(VIEW_PTR(probs, b, h, i, j));
  const int hk = h / pr->group;
  float dot = 0.0f;
  for (int d = 0; d < HEAD_DIM; ++d) dot += qr[d] * LOAD1(VIEW_PTR(k, b, hk, j, d));
  const float m = *VIEW_PTR(lse, b, h, i, 0);
  return m == -INFINITY ? 0.0f : exp(dot * pr->scale - m);
}

#define PARAMS                                                                         \
  int heads, int L, int S, int group, float scale, int causal, int causal_offset,      \
      int from_lse, float dropout_p, ulong seed, ulong offset
#define FILL_PARAMS                                                                    \
  const sdpa_params pr = {heads, L, S, group, causal, causal_offset, from_lse,        \
                          scale, dropout_p, seed, offset}
#define K_ARGS k_ptr, k_off, k_s0, k_s1, k_s2, k_s3
#define P_ARGS probs_ptr, probs_off, probs_s0, probs_s1, probs_s2, probs_s3
#define LSE_ARGS lse_ptr, lse_off, lse_s0, lse_s1, lse_s2, lse_s3

__kernel __attribute__((reqd_work_group_size(BQ, 1, 1))) void sdpa_backward_query(
    DECL_VIEW(const DTYPE, dout), DECL_VIEW(const DTYPE, q), DECL_VIEW(const DTYPE, k),
    DECL_VIEW(const DTYPE, v), DECL_VIEW(const DTYPE, probs), DECL_VIEW(const float, lse),
    DECL_VIEW(DTYPE, dq), DECL_VIEW(float, delta), DECL_VIEW(DTYPE, dp_out), int write_dp,
    DECL_VIEW(float, ds_out), int write_ds, PARAMS) {
  FILL_PARAMS;
  const int i = get_global_id(0), h = get_global_id(1), b = get_global_id(2);
  if (i >= L) return;
  const int hk = h / group;
  float qr[HEAD_DIM], go[VALUE_DIM], acc[HEAD_DIM];
  for (int d = 0; d < HEAD_DIM; ++d) {
    qr[d] = LOAD1(VIEW_PTR(q, b, h, i, d));
    acc[d] = 0.0f;
  }
  for (int d = 0; d < VALUE_DIM; ++d) go[d] = LOAD1(VIEW_PTR(dout, b, h, i, d));
  float dl = 0.0f;
  for (int j = 0; j < S; ++j) {
    float z;
    const float p = probability(&pr, qr, K_ARGS, P_ARGS, LSE_ARGS, b, h, i, j, &z);
    if (p == 0.0f) continue;
    float g = 0.0f;
    for (int d = 0; d < VALUE_DIM; ++d) g += go[d] * LOAD1(VIEW_PTR(v, b, hk, j, d));
    dl += p * g * z;
  }
  *VIEW_PTR(delta, b, h, i, 0) = dl;
  for (int j = 0; j < S; ++j) {
    float z;
    const float p = probability(&pr, qr, K_ARGS, P_ARGS, LSE_ARGS, b, h, i, j, &z);
    float g = 0.0f;
    if (p != 0.0f || write_dp) {
      for (int d = 0; d < VALUE_DIM; ++d) g += go[d] * LOAD1(VIEW_PTR(v, b, hk, j, d));
    }
    const float ds = p * (g * z - dl);
    if (write_dp) STORE1(g, VIEW_PTR(dp_out, b, h, i, j));
    if (write_ds) *VIEW_PTR(ds_out, b, h, i, j) = ds;
    if (ds == 0.0f) continue;
    for (int d = 0; d < HEAD_DIM; ++d) acc[d] += ds * LOAD1(VIEW_PTR(k, b, hk, j, d));
  }
  for (int d = 0; d < HEAD_DIM; ++d) STORE1(acc[d] * scale, VIEW_PTR(dq, b, h, i, d));
}

__kernel __attribute__((reqd_work_group_size(BQ, 1, 1))) void sdpa_backward_kv(
    DECL_VIEW(const DTYPE, dout), DECL_VIEW(const DTYPE, q), DECL_VIEW(const DTYPE, k),
    DECL_VIEW(const DTYPE, v), DECL_VIEW(const DTYPE, probs), DECL_VIEW(const float, lse),
    DECL_VIEW(const float, delta), DECL_VIEW(DTYPE, dk), DECL_VIEW(DTYPE, dv), PARAMS) {
  FILL_PARAMS;
  const int j = get_global_id(0), hk = get_global_id(1), b = get_global_id(2);
  if (j >= S) return;
  float kr[HEAD_DIM], vr[VALUE_DIM], qr[HEAD_DIM], dkr[HEAD_DIM], dvr[VALUE_DIM];
  for (int d = 0; d < HEAD_DIM; ++d) {
    kr[d] = LOAD1(VIEW_PTR(k, b, hk, j, d));
    dkr[d] = 0.0f;
  }
  for (int d = 0; d < VALUE_DIM; ++d) {
    vr[d] = LOAD1(VIEW_PTR(v, b, hk, j, d));
    dvr[d] = 0.0f;
  }
  const int first = causal ? max(j - causal_offset, 0) : 0;
  for (int h = hk * group; h < (hk + 1) * group; ++h) {
    for (int i = first; i < L; ++i) {
      for (int d = 0; d < HEAD_DIM; ++d) qr[d] = LOAD1(VIEW_PTR(q, b, h, i, d));
      float z;
      const float p = probability(&pr, qr, K_ARGS, P_ARGS, LSE_ARGS, b, h, i, j, &z);
      if (p == 0.0f) continue;
      float g = 0.0f;
      for (int d = 0; d < VALUE_DIM; ++d) g += LOAD1(VIEW_PTR(dout, b, h, i, d)) * vr[d];
      const float ds = p * (g * z - *VIEW_PTR(delta, b, h, i, 0));
      const float pz = p * z;
      for (int d = 0; d < VALUE_DIM; ++d) dvr[d] += pz * LOAD1(VIEW_PTR(dout, b, h, i, d));
      for (int d = 0; d < HEAD_DIM; ++d) dkr[d] += ds * qr[d];
    }
  }
  for (int d = 0; d < HEAD_DIM; ++d) STORE1(dkr[d] * scale, VIEW_PTR(dk, b, hk, j, d));
  for (int d = 0; d < VALUE_DIM; ++d) STORE1(dvr[d], VIEW_PTR(dv, b, hk, j, d));
}

/* grad_attn_mask: dS summed over the dimensions the mask broadcasts along.
 * One item per mask element (i0..i3 over the mask's folded sizes); r* are the
 * repeat counts and ds strides of the broadcast dimensions. */
__kernel void sdpa_mask_grad(DECL_VIEW(const float, ds), DECL_VIEW(DTYPE, gm), int n1, int n2,
                             int n3, int r0, int r1, int r2, int r3) {
  const int flat = get_global_id(0);
  const int i3 = flat % n3, i2 = flat / n3 % n2, i1 = flat / (n3 * n2) % n1,
            i0 = flat / (n3 * n2 * n1);
  float sum = 0.0f;
  for (int a = 0; a < r0; ++a)
    for (int c = 0; c < r1; ++c)
      for (int e = 0; e < r2; ++e)
        for (int f = 0; f < r3; ++f)
          sum += *VIEW_PTR(ds, i0 + a, i1 + c, i2 + e, i3 + f);
  STORE1(sum, VIEW_PTR(gm, i0, i1, i2, i3));
}
