/*
 * Permute2D: a batched 2-D transpose. The output is contiguous along x (n0
 * elements), the input along y (n1 elements). Each work item transposes an
 * 8 x 8 block in registers: eight 8-element vector loads from eight input
 * rows, eight vector stores into eight output rows, so every memory access
 * is a whole vector. A group of BLOCKS x BLOCKS work items covers a tile
 * whose rows stay in cache while the group runs (on CPU devices a work
 * group is a loop on one thread). Blocks cut by the edges move element by
 * element. z is the batch.
 *
 * Permute2DTile is the GPU form: a group of 32 x 8 work items moves a 32 x 32
 * tile through local memory (rows padded to 33 so the column reads hit
 * distinct banks). Loads run along the input's contiguous y and stores along
 * the output's contiguous x, so both are coalesced.
 */
// #include "layout.h"

#if LY_SIZE == 1
typedef uchar8 ly_t8;
#elif LY_SIZE == 2
typedef ushort8 ly_t8;
#elif LY_SIZE == 4
typedef uint8 ly_t8;
#else
typedef ulong8 ly_t8;
#endif

/* Column j of the block a0..a7. */
#define PT_COL(j) (ly_t8)(a0.s##j, a1.s##j, a2.s##j, a3.s##j, a4.s##j, a5.s##j, a6.s##j, a7.s##j)
#define PT_LOAD(i) const ly_t8 a##i = vload8(0, (__global const ly_t *)(in + (ulong)(i) * in_s0));
#define PT_STORE(j) vstore8(PT_COL(j), 0, (__global ly_t *)(out + (ulong)(j) * out_s1));

__kernel void Permute2D(uint n0, uint n1, __global uchar *out_ptr, uint out_offset, uint out_s1,
                        uint out_sb, __global uchar *in_ptr, uint in_offset, uint in_s0,
                        uint in_sb) {
  const uint x0 = get_global_id(0) * 8, y0 = get_global_id(1) * 8;
  if (x0 >= n0 || y0 >= n1) return;
  const ulong b = get_global_id(2);
  /* in: row x0, element y0; out: row y0, element x0 */
  __global const uchar *in =
      in_ptr + (in_offset + b * in_sb + (ulong)x0 * in_s0 + (ulong)y0 * LY_SIZE);
  __global uchar *out = out_ptr + (out_offset + b * out_sb + (ulong)y0 * out_s1 + (ulong)x0 * LY_SIZE);
  if (x0 + 8 <= n0 && y0 + 8 <= n1) {
    PT_LOAD(0) PT_LOAD(1) PT_LOAD(2) PT_LOAD(3) PT_LOAD(4) PT_LOAD(5) PT_LOAD(6) PT_LOAD(7)
    PT_STORE(0) PT_STORE(1) PT_STORE(2) PT_STORE(3) PT_STORE(4) PT_STORE(5) PT_STORE(6) PT_STORE(7)
    return;
  }
  const uint nx = min(8u, n0 - x0), ny = min(8u, n1 - y0);
  for (uint i = 0; i < nx; ++i)
    for (uint j = 0; j < ny; ++j)
      *(__global ly_t *)(out + (ulong)j * out_s1 + i * LY_SIZE) =
          *(__global const ly_t *)(in + (ulong)i * in_s0 + j * LY_SIZE);
}

/*
 * Permute2D16 (CPU devices): 16 x 16 blocks, one per work item. The block's
 * sixteen input rows are loaded whole (one 16-element vector each, whole
 * cache lines for 4-byte elements), transposed in registers by four
 * exchange stages, and stored as sixteen whole output rows. Built with
 * NERVA_STREAM, the output rows are stored past the caches. The launch
 * covers whole blocks only (the host moves the cut edges), so the work items
 * run without a branch. Groups walk y (the input's contiguous direction)
 * first.
 */
#if LY_SIZE == 1
typedef uchar16 ly_t16;
#elif LY_SIZE == 2
typedef ushort16 ly_t16;
#elif LY_SIZE == 4
typedef uint16 ly_t16;
#else
typedef ulong16 ly_t16;
#endif

/* Stage b of the transpose: rows i and i + b (bit b of i clear) exchange
 * their lane blocks of b, so that after b = 8, 4, 2, 1 row j holds column j. */
#define PT_MASK8_LO (ly_t16)(0, 1, 2, 3, 4, 5, 6, 7, 16, 17, 18, 19, 20, 21, 22, 23)
#define PT_MASK8_HI (ly_t16)(8, 9, 10, 11, 12, 13, 14, 15, 24, 25, 26, 27, 28, 29, 30, 31)
#define PT_MASK4_LO (ly_t16)(0, 1, 2, 3, 16, 17, 18, 19, 8, 9, 10, 11, 24, 25, 26, 27)
#define PT_MASK4_HI (ly_t16)(4, 5, 6, 7, 20, 21, 22, 23, 12, 13, 14, 15, 28, 29, 30, 31)
#define PT_MASK2_LO (ly_t16)(0, 1, 16, 17, 4, 5, 20, 21, 8, 9, 24, 25, 12, 13, 28, 29)
#define PT_MASK2_HI (ly_t16)(2, 3, 18, 19, 6, 7, 22, 23, 10, 11, 26, 27, 14, 15, 30, 31)
#define PT_MASK1_LO (ly_t16)(0, 16, 2, 18, 4, 20, 6, 22, 8, 24, 10, 26, 12, 28, 14, 30)
#define PT_MASK1_HI (ly_t16)(1, 17, 3, 19, 5, 21, 7, 23, 9, 25, 11, 27, 13, 29, 15, 31)
#define PT_SWAP(i, j, b)                                                       \
  {                                                                          \
    const ly_t16 lo = shuffle2(r##i, r##j, PT_MASK##b##_LO);                 \
    r##j = shuffle2(r##i, r##j, PT_MASK##b##_HI);                            \
    r##i = lo;                                                               \
  }
#define PT_LOAD16(i) ly_t16 r##i = vload16(0, (__global const ly_t *)(in + (ulong)(i) * in_s0));
#define PT_STORE16(i) NERVA_STORE_STREAM(ly_t16, 16, r##i, (__global ly_t *)(out + (ulong)(i) * out_s1));

__kernel void Permute2D16(__global uchar *out_ptr, uint out_offset, uint out_s1, uint out_sb,
                          __global uchar *in_ptr, uint in_offset, uint in_s0, uint in_sb) {
  const uint y0 = get_global_id(0) * 16, x0 = get_global_id(1) * 16;
  const ulong b = get_global_id(2);
  __global const uchar *in =
      in_ptr + (in_offset + b * in_sb + (ulong)x0 * in_s0 + (ulong)y0 * LY_SIZE);
  __global uchar *out = out_ptr + (out_offset + b * out_sb + (ulong)y0 * out_s1 + (ulong)x0 * LY_SIZE);
  PT_LOAD16(0) PT_LOAD16(1) PT_LOAD16(2) PT_LOAD16(3) PT_LOAD16(4) PT_LOAD16(5) PT_LOAD16(6)
  PT_LOAD16(7) PT_LOAD16(8) PT_LOAD16(9) PT_LOAD16(10) PT_LOAD16(11) PT_LOAD16(12)
  PT_LOAD16(13) PT_LOAD16(14) PT_LOAD16(15)
  PT_SWAP(0, 8, 8) PT_SWAP(1, 9, 8) PT_SWAP(2, 10, 8) PT_SWAP(3, 11, 8)
  PT_SWAP(4, 12, 8) PT_SWAP(5, 13, 8) PT_SWAP(6, 14, 8) PT_SWAP(7, 15, 8)
  PT_SWAP(0, 4, 4) PT_SWAP(1, 5, 4) PT_SWAP(2, 6, 4) PT_SWAP(3, 7, 4)
  PT_SWAP(8, 12, 4) PT_SWAP(9, 13, 4) PT_SWAP(10, 14, 4) PT_SWAP(11, 15, 4)
  PT_SWAP(0, 2, 2) PT_SWAP(1, 3, 2) PT_SWAP(4, 6, 2) PT_SWAP(5, 7, 2)
  PT_SWAP(8, 10, 2) PT_SWAP(9, 11, 2) PT_SWAP(12, 14, 2) PT_SWAP(13, 15, 2)
  PT_SWAP(0, 1, 1) PT_SWAP(2, 3, 1) PT_SWAP(4, 5, 1) PT_SWAP(6, 7, 1)
  PT_SWAP(8, 9, 1) PT_SWAP(10, 11, 1) PT_SWAP(12, 13, 1) PT_SWAP(14, 15, 1)
  PT_STORE16(0) PT_STORE16(1) PT_STORE16(2) PT_STORE16(3) PT_STORE16(4) PT_STORE16(5)
  PT_STORE16(6) PT_STORE16(7) PT_STORE16(8) PT_STORE16(9) PT_STORE16(10) PT_STORE16(11)
  PT_STORE16(12) PT_STORE16(13) PT_STORE16(14) PT_STORE16(15)
}

#define PT_TILE 32
#define PT_ROWS 8

__kernel __attribute__((reqd_work_group_size(PT_TILE, PT_ROWS, 1))) void Permute2DTile(
    uint n0, uint n1, __global uchar *out_ptr, uint out_offset, uint out_s1, uint out_sb,
    __global uchar *in_ptr, uint in_offset, uint in_s0, uint in_sb) {
  __local ly_t tile[PT_TILE][PT_TILE + 1];
  const uint lx = get_local_id(0), ly = get_local_id(1);
  const uint x0 = get_group_id(0) * PT_TILE, y0 = get_group_id(1) * PT_TILE;
  const ulong b = get_global_id(2);
  __global const uchar *in = in_ptr + (in_offset + b * in_sb);
  __global uchar *out = out_ptr + (out_offset + b * out_sb);
  /* tile[x][y]: input row x0 + x, element y0 + y */
  if (y0 + lx < n1) {
    for (uint r = ly; r < PT_TILE && x0 + r < n0; r += PT_ROWS)
      tile[r][lx] = *(__global const ly_t *)(in + (ulong)(x0 + r) * in_s0 + (ulong)(y0 + lx) * LY_SIZE);
  }
  barrier(CLK_LOCAL_MEM_FENCE);
  if (x0 + lx < n0) {
    for (uint r = ly; r < PT_TILE && y0 + r < n1; r += PT_ROWS)
      *(__global ly_t *)(out + (ulong)(y0 + r) * out_s1 + (ulong)(x0 + lx) * LY_SIZE) = tile[lx][r];
  }
}
