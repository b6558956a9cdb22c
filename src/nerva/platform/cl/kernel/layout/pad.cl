/*
 * Pad: output position c on each dimension reads input position
 * i = c - before, mapped by `mode`: 0 constant (outside the input writes
 * `value`), 1 reflect (mirror without repeating the edge), 2 replicate
 * (clamp to the edge), 3 circular (wrap around). Negative `before` crops.
 * PadMove and PadMoveFill are the plain moves and fills of the interior and
 * the border slabs.
 */
// #include "layout.h"

LY_MOVE_KERNELS(PadMove)

__kernel void Pad(uint8 sizes, int rank, int8 in_sizes, int8 before, int mode, LY_VIEW(out),
                  LY_VIEW(in), ulong value) {
  const uint8 c = ly_coords(sizes, rank);
  int8 i = convert_int8(c) - before;
  const int8 n = in_sizes;
  if (mode == 0) {
    if (any((i < 0) | (i >= n))) {
      LY_AT(out_ptr, LY_ADDR(out, c)) = (ly_t)value;
      return;
    }
  } else if (mode == 1) {
    i = select(i, -i, i < 0);
    i = select(i, 2 * (n - 1) - i, i >= n);
  } else if (mode == 2) {
    i = clamp(i, (int8)(0), n - 1);
  } else {
    i = i % n;
    i = select(i, i + n, i < 0);
  }
  LY_AT(out_ptr, LY_ADDR(out, c)) = LY_AT(in_ptr, LY_ADDR(in, convert_uint8(i)));
}
