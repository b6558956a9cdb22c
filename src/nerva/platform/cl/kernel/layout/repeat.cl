/*
 * Repeat: the input seen through a tiled view moved into the output.
 * RepeatInterleave: output position j along dimension `axis` (innermost-first
 * index) takes input position i, the first whose inclusive running sum of
 * repeats exceeds j; with one repeat count r for all positions, i = j / r.
 * Whatever the device values, i stays inside [0, n).
 */
// #include "layout.h"

LY_MOVE_KERNELS(Repeat)

inline long ly_cum(__global uchar *ptr, uint offset, uint stride, uint wide, uint i) {
  const uint at = offset + i * stride;
  return wide ? *(__global long *)(ptr + at) : (long)*(__global int *)(ptr + at);
}

__kernel void RepeatInterleave(uint8 sizes, int rank, int axis, uint n, LY_VIEW(out),
                               LY_VIEW(in), __global uchar *cum_ptr, uint cum_offset,
                               uint cum_stride, uint cum_count, uint cum_wide) {
  uint8 c = ly_coords(sizes, rank);
  const uint8 oc = c;
  uint *coord = (uint *)&c;
  const long j = coord[axis];
  uint i;
  if (cum_count == 1) {
    const long r = ly_cum(cum_ptr, cum_offset, cum_stride, cum_wide, 0);
    i = (uint)min(j / max(r, 1L), (long)n - 1);
  } else {
    uint lo = 0, hi = cum_count - 1;
    while (lo < hi) {
      const uint mid = (lo + hi) / 2;
      if (ly_cum(cum_ptr, cum_offset, cum_stride, cum_wide, mid) > j)
        hi = mid;
      else
        lo = mid + 1;
    }
    i = lo;
  }
  coord[axis] = i;
  LY_AT(out_ptr, LY_ADDR(out, oc)) = LY_AT(in_ptr, LY_ADDR(in, c));
}
