/*
 * The layout walk. Elements are moved as raw bits of LY_SIZE bytes
 * (1, 2, 4 or 8; no conversion). A launch walks the output's dimensions,
 * innermost first: x and y are the first two, dimensions 2 to 7 are folded
 * into z and recovered from `sizes` (with `rank` dimensions in use). Byte
 * strides are uint and wrap, so a negative stride is passed as its two's
 * complement and every address stays exact as long as it fits 32 bits.
 *
 * A program expands LY_MOVE_KERNELS(Name), which defines
 *   Name        out[c] = in[c] over two strided views of equal sizes;
 *   Name##Fill  out[c] = value (the element's bits in the low LY_SIZE bytes).
 * With LY_XC 1 the x stride of both views is one element and each work item
 * moves a vector of LY_VEC elements; the per-element kernels (Pad's border
 * mapping, Roll, RepeatInterleave) use ly_coords and ly_offset.
 */
#ifndef NERVA_LAYOUT_H
#define NERVA_LAYOUT_H

#if LY_SIZE == 1
typedef uchar ly_t;
#elif LY_SIZE == 2
typedef ushort ly_t;
#elif LY_SIZE == 4
typedef uint ly_t;
#else
typedef ulong ly_t;
#endif

#ifndef LY_XC
#define LY_XC 0
#endif

/* The element at byte `at` of `ptr`. */
#define LY_AT(ptr, at) (*(__global ly_t *)((ptr) + (at)))

/* This work item's coordinates, x in s0. */
inline uint8 ly_coords(uint8 sizes, int rank) {
  uint8 c = (uint8)(0);
  c.s0 = get_global_id(0);
  c.s1 = get_global_id(1);
  uint z = get_global_id(2);
  if (rank <= 3) {
    c.s2 = z;
    return c;
  }
  c.s2 = z % sizes.s2;
  z /= sizes.s2;
  c.s3 = z % sizes.s3;
  z /= sizes.s3;
  c.s4 = z % sizes.s4;
  z /= sizes.s4;
  c.s5 = z % sizes.s5;
  z /= sizes.s5;
  c.s6 = z % sizes.s6;
  c.s7 = z / sizes.s6;
  return c;
}

/* The coordinates of the flat (row-major over the dimensions in use) index i. */
inline uint8 ly_unflatten(uint i, uint8 sizes) {
  uint8 c;
  c.s0 = i % sizes.s0;
  i /= sizes.s0;
  c.s1 = i % sizes.s1;
  i /= sizes.s1;
  c.s2 = i % sizes.s2;
  i /= sizes.s2;
  c.s3 = i % sizes.s3;
  i /= sizes.s3;
  c.s4 = i % sizes.s4;
  i /= sizes.s4;
  c.s5 = i % sizes.s5;
  i /= sizes.s5;
  c.s6 = i % sizes.s6;
  c.s7 = i / sizes.s6;
  return c;
}

/* Byte offset of coordinates c under byte strides s. */
inline uint ly_offset(uint8 c, uint8 s) {
  const uint8 p = c * s;
  return (LY_XC ? c.s0 * LY_SIZE : p.s0) + p.s1 + p.s2 + p.s3 + p.s4 + p.s5 + p.s6 + p.s7;
}

/* A strided view: base pointer, byte offset of its first element, byte strides. */
#define LY_VIEW(t) __global uchar *t##_ptr, uint t##_offset, uint8 t##_strides
#define LY_ADDR(t, c) (t##_offset + ly_offset(c, t##_strides))

/* ---- the move walk ----
 * Scalar address math per dimension: x and y come from the global ids, z is
 * dimension 2 or, only in LY_DEEP builds (rank above 3), dimensions 2 to 7
 * folded. With LY_XC each work item moves LY_VEC consecutive elements of
 * the contiguous x run with one vector load and store (the run's shorter
 * last piece element by element), else one element. */
#ifndef LY_DEEP
#define LY_DEEP 0
#endif
#if LY_SIZE == 1
typedef uchar16 ly_v;
#define LY_VEC 16
#define LY_VLOAD vload16
#define LY_VSTORE vstore16
#elif LY_SIZE == 2
typedef ushort16 ly_v;
#define LY_VEC 16
#define LY_VLOAD vload16
#define LY_VSTORE vstore16
#elif LY_SIZE == 4
typedef uint8 ly_v;
#define LY_VEC 8
#define LY_VLOAD vload8
#define LY_VSTORE vstore8
#else
typedef ulong4 ly_v;
#define LY_VEC 4
#define LY_VLOAD vload4
#define LY_VSTORE vstore4
#endif

/* Byte address of row (y, z) of a view at `offset` with byte strides s.
 * Strides are signed (two's complement in the uint lanes) and addresses
 * 64-bit, so negative strides stay exact without relying on wrapping. */
#define LY_S(s, k) ((long)as_int(s.k))
inline long ly_row(uint y, uint z, uint8 sizes, int rank, uint offset, uint8 s) {
  long at = (long)offset + y * LY_S(s, s1);
#if LY_DEEP
  uint rest = z / sizes.s2;
  at += (z % sizes.s2) * LY_S(s, s2);
  if (rank > 3) {
    at += (rest % sizes.s3) * LY_S(s, s3);
    rest /= sizes.s3;
  }
  if (rank > 4) {
    at += (rest % sizes.s4) * LY_S(s, s4);
    rest /= sizes.s4;
  }
  if (rank > 5) {
    at += (rest % sizes.s5) * LY_S(s, s5);
    rest /= sizes.s5;
  }
  if (rank > 6) {
    at += (rest % sizes.s6) * LY_S(s, s6);
    rest /= sizes.s6;
  }
  if (rank > 7) at += rest * LY_S(s, s7);
#else
  at += z * LY_S(s, s2);
#endif
  return at;
}

#define LY_ROWS(t) \
  const long t##_at = ly_row(get_global_id(1), get_global_id(2), sizes, rank, t##_offset, t##_strides);
#define LY_P(t) ((__global ly_t *)(t##_ptr + t##_at))
#if LY_XC
#define LY_K(t, k) (LY_P(t) + (k))
#else
#define LY_K(t, k) ((__global ly_t *)(t##_ptr + (t##_at + (k) * LY_S(t##_strides, s0))))
#endif

/* The x run of one work item: ONE(k) for each element k, or VEC(first) for
 * a whole vector from element `first`. */
#if LY_XC
#define LY_RUN(ONE, VEC)                        \
  const uint first = get_global_id(0) * LY_VEC; \
  if (first + LY_VEC <= sizes.s0) {             \
    VEC(first);                                 \
  } else {                                      \
    for (uint k = first; k < sizes.s0; ++k) ONE(k); \
  }
#else
#define LY_RUN(ONE, VEC) ONE(get_global_id(0));
#endif
#define LY_MOVE_ONE(k) (*LY_K(out, k) = *LY_K(in, k))
#define LY_MOVE_VEC(f) NERVA_STORE_STREAM(ly_v, LY_VEC, LY_VLOAD(0, LY_P(in) + (f)), LY_P(out) + (f))
#define LY_FILL_ONE(k) (*LY_K(out, k) = (ly_t)value)
#define LY_FILL_VEC(f) NERVA_STORE_STREAM(ly_v, LY_VEC, (ly_v)((ly_t)value), LY_P(out) + (f))

#define LY_MOVE_KERNELS(NAME)                                                  \
  __kernel void NAME(uint8 sizes, int rank, LY_VIEW(out), LY_VIEW(in)) {       \
    LY_ROWS(out)                                                               \
    LY_ROWS(in)                                                                \
    LY_RUN(LY_MOVE_ONE, LY_MOVE_VEC)                                           \
  }                                                                            \
  __kernel void NAME##Fill(uint8 sizes, int rank, LY_VIEW(out), ulong value) { \
    LY_ROWS(out)                                                               \
    LY_RUN(LY_FILL_ONE, LY_FILL_VEC)                                           \
  }

#endif /* NERVA_LAYOUT_H */
