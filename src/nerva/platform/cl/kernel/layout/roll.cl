/*
 * Roll: out[c] = in[(c - shift) mod size] on every dimension (shifts already
 * in [0, size)). RollFlat rolls the row-major flattening of n elements by
 * `shift`, both tensors addressed through their own strides.
 */
// #include "layout.h"

__kernel void Roll(uint8 sizes, int rank, uint8 shifts, LY_VIEW(out), LY_VIEW(in)) {
  const uint8 c = ly_coords(sizes, rank);
  const uint8 src = select(c - shifts, c + sizes - shifts, c < shifts);
  LY_AT(out_ptr, LY_ADDR(out, c)) = LY_AT(in_ptr, LY_ADDR(in, src));
}

__kernel void RollFlat(uint8 sizes, uint n, uint shift, LY_VIEW(out), LY_VIEW(in)) {
  const uint j = get_global_id(0);
  const uint i = j >= shift ? j - shift : j + n - shift;
  LY_AT(out_ptr, LY_ADDR(out, ly_unflatten(j, sizes))) =
      LY_AT(in_ptr, LY_ADDR(in, ly_unflatten(i, sizes)));
}
