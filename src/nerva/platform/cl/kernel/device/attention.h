/*
 * Shared pieces of the attention programs: 4-D element views, attention
 * masks and the dropout decision.
 *
 * A view is a typed pointer, an element offset and four element strides
 * (batch, head, row, column), bound by the host's View4.
 */
#ifndef NERVA_ATTENTION_H
#define NERVA_ATTENTION_H

#define DECL_VIEW(T, name)                                                   \
  __global T *name##_ptr, long name##_off, long name##_s0, long name##_s1,   \
      long name##_s2, long name##_s3
#define VIEW_INDEX(name, a, b, c, d)                                         \
  (name##_off + (long)(a) * name##_s0 + (long)(b) * name##_s1 +              \
   (long)(c) * name##_s2 + (long)(d) * name##_s3)
/* Address of element (a, b, c, d) of a view. */
#define VIEW_PTR(name, a, b, c, d) (name##_ptr + VIEW_INDEX(name, a, b, c, d))

/* Mask kinds: none, bool (nonzero takes part), additive float, additive half. */
#define MASK_NONE 0
#define MASK_BOOL 1
#define MASK_FLOAT 2
#define MASK_HALF 3

/* The score after the mask at element `idx` of the mask buffer. */
inline float apply_mask(float s, int kind, __global const uchar *mask, long idx) {
  if (kind == MASK_BOOL) return mask[idx] ? s : -INFINITY;
  if (kind == MASK_FLOAT) return s + ((__global const float *)mask)[idx];
  if (kind == MASK_HALF) return s + vload_half(idx, (__global const half *)mask);
  return s;
}

/* Philox-4x32-10 of the element counter (index, launch offset) under the
 * seed: the dropout of one probability depends on its position alone, so
 * the backward redraws the forward's decisions whatever its tiling. */
inline bool dropout_keep(ulong index, ulong seed, ulong offset, float p) {
  const uint4 c = philox4x32_10(
      (uint4)((uint)index, (uint)(index >> 32), (uint)offset, (uint)(offset >> 32)),
      (uint2)((uint)seed, (uint)(seed >> 32)));
  return uniform_from_word(c.x) >= p;
}

/* e^x lane-wise, within about 2 ulp, for x <= 88; exactly 0 below -87.3
 * (and for -inf). Cody-Waite reduction x = n ln2 + r, |r| <= ln2 / 2, and a
 * degree-6 polynomial for e^r: a fixed sequence of multiply-adds, where the
 * library exponential may be a scalar call per lane. */
inline float16 exp16(float16 x) {
  const float16 n = rint(x * 1.44269504f);
  float16 r = fma(n, (float16)(-0.693145752f), x);
  r = fma(n, (float16)(-1.42860677e-6f), r);
  float16 e = fma(r, (float16)(1.0f / 720), (float16)(1.0f / 120));
  e = fma(e, r, (float16)(1.0f / 24));
  e = fma(e, r, (float16)(1.0f / 6));
  e = fma(e, r, (float16)(0.5f));
  e = fma(e, r, (float16)(1.0f));
  e = fma(e, r, (float16)(1.0f));
  const int16 scaled = as_int16(e) + (convert_int16(fmax(n, -127.0f)) << 23);
  const float16 y = select(as_float16(scaled), (float16)(0.0f), x < (float16)(-87.3f));
  return select(y, x, isnan(x));
}

/* Sum and maximum of the sixteen lanes. */
inline float hsum16(float16 v) {
  const float8 a = v.lo + v.hi;
  const float4 b = a.lo + a.hi;
  const float2 c = b.lo + b.hi;
  return c.x + c.y;
}
inline float hmax16(float16 v) {
  const float8 a = fmax(v.lo, v.hi);
  const float4 b = fmax(a.lo, a.hi);
  const float2 c = fmax(b.lo, b.hi);
  return fmax(c.x, c.y);
}

#endif
