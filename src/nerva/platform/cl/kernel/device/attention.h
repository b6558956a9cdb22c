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

#endif
