/*
 * Pad: output position c on each dimension reads input position
 * i = c - before, mapped by `mode`: 0 constant (outside the input writes
 * `value`), 1 reflect (mirror without repeating the edge), 2 replicate
 * (clamp to the edge), 3 circular (wrap around). Negative `before` crops.
 * PadMove and PadMoveFill are the plain moves and fills of the interior and
 * the border slabs. Pad walks the output over (x, y, z); PadFlat (GPUs) takes
 * one work item per output element in row-major order, so consecutive items
 * write consecutive elements of the contiguous output rows. PadRows (CPU
 * devices) writes whole planes.
 */
// #include "layout.h"

LY_MOVE_KERNELS(PadMove)

#define PAD_ARGS                                                                        \
  uint8 sizes, int rank, int8 in_sizes, int8 before, int mode, LY_VIEW(out), LY_VIEW(in), \
      ulong value

/* Input position of i = c - before on a dimension of n under `mode`, lane by
 * lane for int8 (i is returned unchanged in constant mode). */
#define PAD_DEFINE_MAP(T)                                                      \
  inline T __attribute__((overloadable)) pad_map(T i, T n, int mode) {        \
    if (mode == 1) {                                                         \
      i = select(i, -i, i < 0);                                              \
      return select(i, 2 * (n - 1) - i, i >= n);                             \
    }                                                                        \
    if (mode == 2) return clamp(i, (T)(0), n - 1);                           \
    if (mode == 3) {                                                         \
      i = i % n;                                                             \
      return select(i, i + n, i < 0);                                        \
    }                                                                        \
    return i;                                                                \
  }
PAD_DEFINE_MAP(int)
PAD_DEFINE_MAP(int8)

inline void pad_one(uint8 c, int8 in_sizes, int8 before, int mode, LY_VIEW(out), LY_VIEW(in),
                    ulong value) {
  const int8 i = convert_int8(c) - before;
  if (mode == 0 && any((i < 0) | (i >= in_sizes))) {
    LY_AT(out_ptr, LY_ADDR(out, c)) = (ly_t)value;
    return;
  }
  LY_AT(out_ptr, LY_ADDR(out, c)) =
      LY_AT(in_ptr, LY_ADDR(in, convert_uint8(pad_map(i, in_sizes, mode))));
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

/* pad_map on one dimension, -1 where constant mode writes `value`. */
inline int pad_index(int i, int n, int mode) {
  return mode == 0 && (i < 0 || i >= n) ? -1 : pad_map(i, n, mode);
}

/*
 * PadRows (CPU devices; contiguous tensors padded on their last two dims,
 * none negative): work item p writes plane p of the output (ho rows of wo),
 * row by row from its source row of the input's plane p (h rows of w): the
 * row's middle moved 16 elements at a time, then the left and right borders
 * element by element. Every output line is written once, in order.
 */
__kernel void PadRows(uint w, uint h, uint wo, uint ho, int left, int top, int mode,
                      __global uchar *out_ptr, uint out_offset, __global uchar *in_ptr,
                      uint in_offset, ulong value) {
  const ulong p = get_global_id(0);
  __global ly_t *out = (__global ly_t *)(out_ptr + out_offset) + p * wo * ho;
  __global const ly_t *in = (__global const ly_t *)(in_ptr + in_offset) + p * w * h;
  for (uint r = 0; r < ho; ++r) {
    __global ly_t *o = out + (ulong)r * wo;
    const int hs = pad_index((int)r - top, (int)h, mode);
    if (hs < 0) {
      for (uint j = 0; j < wo; ++j) o[j] = (ly_t)value;
      continue;
    }
    __global const ly_t *src = in + (ulong)hs * w;
    uint j = 0;
    for (; j + 16 <= w; j += 16) vstore16(vload16(0, src + j), 0, o + left + j);
    for (; j < w; ++j) o[left + j] = src[j];
    for (int c = 0; c < left; ++c) {
      const int k = pad_index(c - left, (int)w, mode);
      o[c] = k < 0 ? (ly_t)value : src[k];
    }
    for (uint c = left + w; c < wo; ++c) {
      const int k = pad_index((int)c - left, (int)w, mode);
      o[c] = k < 0 ? (ly_t)value : src[k];
    }
  }
}
