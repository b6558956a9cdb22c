/*
 * Roll: out[c] = in[(c - shift) mod size] on every dimension (shifts already
 * in [0, size)). RollFlat rolls the row-major flattening of n elements by
 * `shift`, both tensors addressed through their own strides.
 */
// #include "datamove.h"

__kernel void Roll(uint8 sizes, int rank, uint8 shifts, DM_VIEW(out), DM_VIEW(in)) {
  const uint8 c = dm_coords(sizes, rank);
  const uint8 src = select(c - shifts, c + sizes - shifts, c < shifts);
  DM_AT(out_ptr, DM_ADDR(out, c)) = DM_AT(in_ptr, DM_ADDR(in, src));
}

__kernel void RollFlat(uint8 sizes, uint n, uint shift, DM_VIEW(out), DM_VIEW(in)) {
  const uint j = get_global_id(0);
  const uint i = j >= shift ? j - shift : j + n - shift;
  DM_AT(out_ptr, DM_ADDR(out, dm_unflatten(j, sizes))) =
      DM_AT(in_ptr, DM_ADDR(in, dm_unflatten(i, sizes)));
}
