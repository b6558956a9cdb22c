/*
 * Pad: output position c on each dimension reads input position
 * i = c - before, mapped by `mode`: 0 constant (outside the input writes
 * `value`), 1 reflect (mirror without repeating the edge), 2 replicate
 * (clamp to the edge), 3 circular (wrap around). Negative `before` crops.
 * PadMove and PadMoveFill are the plain moves and fills of the interior and
 * the border slabs. Pad walks the output over (x, y, z); PadFlat (GPUs) takes
 * one work item per output element in row-major order, so consecutive items
 * write consecutive elements of the contiguous output rows.
 */
// #include "layout.h"

LY_MOVE_KERNELS(PadMove)

#define PAD_ARGS                                                                        \
  uint8 sizes, int rank, int8 in_sizes, int8 before, int mode, LY_VIEW(out), LY_VIEW(in), \
      ulong value

inline void pad_one(uint8 c, int8 in_sizes, int8 before, int mode, LY_VIEW(out), LY_VIEW(in),
                    ulong value) {
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

__kernel void Pad(PAD_ARGS) {
  pad_one(ly_coords(sizes, rank), in_sizes, before, mode, out_ptr, out_offset, out_strides,
          in_ptr, in_offset, in_strides, value);
}

__kernel void PadFlat(PAD_ARGS, uint total) {
  uint r = get_global_id(0);
  if (r >= total) return;
  uint8 c = (uint8)(0);
  c.s0 = r % sizes.s0;
  r /= sizes.s0;
  c.s1 = r % sizes.s1;
  r /= sizes.s1;
  if (rank <= 3) {
    c.s2 = r;
  } else if (rank == 4) {
    c.s2 = r % sizes.s2;
    c.s3 = r / sizes.s2;
  } else {
    const uint8 rest = ly_unflatten(r, (uint8)(sizes.s2345, sizes.s67, 1, 1));
    c.s23 = rest.s01;
    c.s4567 = rest.s2345;
  }
  pad_one(c, in_sizes, before, mode, out_ptr, out_offset, out_strides, in_ptr, in_offset,
          in_strides, value);
}
