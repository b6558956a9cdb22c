/*
 * GPT-J's rotary embedding after the tensor-unit projections, which leave
 * q, k and v side by side in rows of 3 E = 3 H D elements ([B][T][3][H][D]).
 * Rotation, views and present rows as "gptj_rope.cl" (rotate_every_two of
 * the leading rotary_dim dims of q and k at the token's clamped position id);
 * the destination views may be the qkv rows themselves (the decode step
 * rotates them in place: each item reads its pairs before it writes them).
 * Build definitions: DTYPE.
 */
// #include "common.h"
// #include "attention.h"

/* Global (D / 2, T * H, B). */
__kernel void gptj_rope_tensorcore(__global const DTYPE* qkv, __global const DTYPE* sinp,
                                   __global const DTYPE* cosp, int max_pos, int half_rot,
                                   __global const uchar* pos, int pos64, DECL_VIEW(DTYPE, qd),
                                   DECL_VIEW(DTYPE, kd), DECL_VIEW(DTYPE, vd),
                                   DECL_VIEW(DTYPE, pk), DECL_VIEW(DTYPE, pv), int past, int T,
                                   int H, int D) {
  const int p = get_global_id(0), th = get_global_id(1), b = get_global_id(2);
  if (2 * p >= D || th >= T * H) return;
  const int t = th / H, h = th % H;
  const long E = (long)H * D, ti = (long)b * T + t;
  __global const DTYPE* src = qkv + ti * 3 * E + (long)h * D + 2 * p;
  float q0 = VLOAD(DTYPE, 1, src), q1 = VLOAD(DTYPE, 1, src + 1);
  float k0 = VLOAD(DTYPE, 1, src + E), k1 = VLOAD(DTYPE, 1, src + E + 1);
  const float v0 = VLOAD(DTYPE, 1, src + 2 * E), v1 = VLOAD(DTYPE, 1, src + 2 * E + 1);
  if (p < half_rot) {
    const long id = pos64 ? ((__global const long*)pos)[ti] : ((__global const int*)pos)[ti];
    const long at = clamp(id, 0L, (long)max_pos - 1) * half_rot + p;
    const float s = VLOAD(DTYPE, 1, sinp + at), c = VLOAD(DTYPE, 1, cosp + at);
    const float a0 = q0 * c - q1 * s, a1 = q1 * c + q0 * s;
    const float b0 = k0 * c - k1 * s, b1 = k1 * c + k0 * s;
    q0 = a0, q1 = a1, k0 = b0, k1 = b1;
  }
  VSTORE(DTYPE, 1, q0, VIEW_PTR(qd, b, h, t, 2 * p));
  VSTORE(DTYPE, 1, q1, VIEW_PTR(qd, b, h, t, 2 * p + 1));
  VSTORE(DTYPE, 1, k0, VIEW_PTR(kd, b, h, t, 2 * p));
  VSTORE(DTYPE, 1, k1, VIEW_PTR(kd, b, h, t, 2 * p + 1));
  VSTORE(DTYPE, 1, v0, VIEW_PTR(vd, b, h, t, 2 * p));
  VSTORE(DTYPE, 1, v1, VIEW_PTR(vd, b, h, t, 2 * p + 1));
  VSTORE(DTYPE, 1, k0, VIEW_PTR(pk, b, h, past + t, 2 * p));
  VSTORE(DTYPE, 1, k1, VIEW_PTR(pk, b, h, past + t, 2 * p + 1));
  VSTORE(DTYPE, 1, v0, VIEW_PTR(pv, b, h, past + t, 2 * p));
  VSTORE(DTYPE, 1, v1, VIEW_PTR(pv, b, h, past + t, 2 * p + 1));
}
