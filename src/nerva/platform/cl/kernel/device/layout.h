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
 * With LY_XC 1 the x stride of both views is one element, a constant, so
 * the compiler can vectorise consecutive work items.
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

#define LY_MOVE_KERNELS(NAME)                                                     \
  __kernel void NAME(uint8 sizes, int rank, LY_VIEW(out), LY_VIEW(in)) {          \
    const uint8 c = ly_coords(sizes, rank);                                       \
    LY_AT(out_ptr, LY_ADDR(out, c)) = LY_AT(in_ptr, LY_ADDR(in, c));              \
  }                                                                               \
  __kernel void NAME##Fill(uint8 sizes, int rank, LY_VIEW(out), ulong value) {    \
    const uint8 c = ly_coords(sizes, rank);                                       \
    LY_AT(out_ptr, LY_ADDR(out, c)) = (ly_t)value;                                \
  }

#endif /* NERVA_LAYOUT_H */
