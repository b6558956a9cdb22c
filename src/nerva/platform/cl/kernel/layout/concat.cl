/*
 * Concat: a strided view of the source moved into the output (and a fill).
 */
// #include "layout.h"

LY_MOVE_KERNELS(Concat)

/*
 * ConcatRows (GPUs): up to eight contiguous pieces joined in one launch. The
 * output is seen as `rows` rows of `out_row` units (everything from the
 * joined dim inward); this launch writes columns [0, width) of each row from
 * its output offset on, piece k holding columns [starts.k, next start) with
 * rows of its own width. Unused pieces start at `width`. One work item per
 * unit, consecutive items along a row, so loads and stores are coalesced.
 * The unit is one element (ConcatRows) or 16 bytes (ConcatRows16, when every
 * width and offset is a multiple of 16 bytes).
 */
#define CN_PIECES(X) X(0) X(1) X(2) X(3) X(4) X(5) X(6) X(7)
#define CN_ARG(K) , __global const uchar *p##K, uint o##K
#define CN_TRY(K)                                \
  if (!src && col >= starts.s##K) {              \
    lo = starts.s##K;                            \
    src = p##K + o##K;                           \
  } else if (!src) {                             \
    hi = starts.s##K;                            \
  }
#define CN_TRY_DOWN CN_TRY(7) CN_TRY(6) CN_TRY(5) CN_TRY(4) CN_TRY(3) CN_TRY(2) CN_TRY(1) CN_TRY(0)

#define CN_KERNEL(NAME, UNIT)                                                                \
  __kernel void NAME(uint total, uint width, uint out_row, uint8 starts,                     \
                     __global uchar *out_ptr, uint out_offset CN_PIECES(CN_ARG)) {           \
    const uint i = get_global_id(0);                                                         \
    if (i >= total) return;                                                                  \
    const uint row = i / width, col = i - row * width;                                       \
    uint lo = 0, hi = width;                                                                 \
    __global const uchar *src = 0;                                                           \
    CN_TRY_DOWN                                                                              \
    const UNIT v = ((__global const UNIT *)src)[(ulong)row * (hi - lo) + (col - lo)];        \
    ((__global UNIT *)(out_ptr + out_offset))[(ulong)row * out_row + col] = v;               \
  }

CN_KERNEL(ConcatRows, ly_t)
CN_KERNEL(ConcatRows16, uint4)
