/*
 * GPT-J's rotary embedding and key/value cache update.
 *
 * Build definitions: DTYPE.
 *
 * gptj_rope: one item per (pair of head dims, token x head, batch) of the
 * projections q, k, v [B][T][H][D] (contiguous). Pairs below rotary_dim / 2
 * of q and k rotate as GPT-J's rotate_every_two:
 *   (x0, x1) -> (x0 cos - x1 sin, x1 cos + x0 sin)
 * with sin/cos [max_pos][rotary_dim / 2] at the token's position id (clamped
 * to [0, max_pos)). Results go to the q, k, v views [B][H][T][D] and to rows
 * past + t of the present key/value views.
 * gptj_past: copies the past key/value [B][H][P][D] into the present rows 0..P.
 */

#define LOAD1(p) VLOAD(DTYPE, 1, p)
#define STORE1(v, p) VSTORE(DTYPE, 1, v, p)

__kernel void gptj_rope(__global const DTYPE *qp, __global const DTYPE *kp,
                        __global const DTYPE *vp, __global const DTYPE *sinp,
                        __global const DTYPE *cosp, int max_pos, int half_rot,
                        __global const uchar *pos, int pos64, DECL_VIEW(DTYPE, qd),
                        DECL_VIEW(DTYPE, kd), DECL_VIEW(DTYPE, vd), DECL_VIEW(DTYPE, pk),
                        DECL_VIEW(DTYPE, pv), int past, int T, int H, int D) {
  const int p = get_global_id(0), th = get_global_id(1), b = get_global_id(2);
  if (2 * p >= D || th >= T * H) return;
  const int t = th / H, h = th % H;
  const long src = (((long)b * T + t) * H + h) * D + 2 * p;
  float q0 = LOAD1(qp + src), q1 = LOAD1(qp + src + 1);
  float k0 = LOAD1(kp + src), k1 = LOAD1(kp + src + 1);
  const float v0 = LOAD1(vp + src), v1 = LOAD1(vp + src + 1);
  if (p < half_rot) {
    const long ti = (long)b * T + t;
    const long id = pos64 ? ((__global const long *)pos)[ti] : ((__global const int *)pos)[ti];
    const long at = clamp(id, 0L, (long)max_pos - 1) * half_rot + p;
    const float s = LOAD1(sinp + at), c = LOAD1(cosp + at);
    const float a0 = q0 * c - q1 * s, a1 = q1 * c + q0 * s;
    const float b0 = k0 * c - k1 * s, b1 = k1 * c + k0 * s;
    q0 = a0, q1 = a1, k0 = b0, k1 = b1;
  }
  STORE1(q0, VIEW_PTR(qd, b, h, t, 2 * p));
  STORE1(q1, VIEW_PTR(qd, b, h, t, 2 * p + 1));
  STORE1(k0, VIEW_PTR(kd, b, h, t, 2 * p));
  STORE1(k1, VIEW_PTR(kd, b, h, t, 2 * p + 1));
  STORE1(v0, VIEW_PTR(vd, b, h, t, 2 * p));
  STORE1(v1, VIEW_PTR(vd, b, h, t, 2 * p + 1));
  STORE1(k0, VIEW_PTR(pk, b, h, past + t, 2 * p));
  STORE1(k1, VIEW_PTR(pk, b, h, past + t, 2 * p + 1));
  STORE1(v0, VIEW_PTR(pv, b, h, past + t, 2 * p));
  STORE1(v1, VIEW_PTR(pv, b, h, past + t, 2 * p + 1));
}

__kernel void gptj_past(DECL_VIEW(const DTYPE, k), DECL_VIEW(const DTYPE, v),
                        DECL_VIEW(DTYPE, pk), DECL_VIEW(DTYPE, pv), int P, int D) {
  const int d = get_global_id(0), hp = get_global_id(1), b = get_global_id(2);
  if (d >= D || hp >= get_global_size(1)) return;
  const int h = hp / P, p = hp % P;
  STORE1(LOAD1(VIEW_PTR(k, b, h, p, d)), VIEW_PTR(pk, b, h, p, d));
  STORE1(LOAD1(VIEW_PTR(v, b, h, p, d)), VIEW_PTR(pv, b, h, p, d));
}
