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

/* One 8 x 8 block: in at its first input row, out at its first output row. */
inline void pt_block8(__global const uchar *in, __global uchar *out, uint in_s0, uint out_s1) {
  PT_LOAD(0) PT_LOAD(1) PT_LOAD(2) PT_LOAD(3) PT_LOAD(4) PT_LOAD(5) PT_LOAD(6) PT_LOAD(7)
  PT_STORE(0) PT_STORE(1) PT_STORE(2) PT_STORE(3) PT_STORE(4) PT_STORE(5) PT_STORE(6) PT_STORE(7)
}

/*
 * Permute2D16 (CPU devices): the same with 16 x 16 blocks moved as four 8 x 8
 * blocks, the two halves of each output row one after the other, so for
 * 4-byte elements every input and output cache line of the block is used
 * whole while it is in L1 (one 16 x 16 register transpose spills).
 */
__kernel void Permute2D16(uint n0, uint n1, __global uchar *out_ptr, uint out_offset, uint out_s1,
                          uint out_sb, __global uchar *in_ptr, uint in_offset, uint in_s0,
                          uint in_sb) {
  const uint x0 = get_global_id(0) * 16, y0 = get_global_id(1) * 16;
  if (x0 >= n0 || y0 >= n1) return;
  const ulong b = get_global_id(2);
  __global const uchar *in =
      in_ptr + (in_offset + b * in_sb + (ulong)x0 * in_s0 + (ulong)y0 * LY_SIZE);
  __global uchar *out = out_ptr + (out_offset + b * out_sb + (ulong)y0 * out_s1 + (ulong)x0 * LY_SIZE);
  if (x0 + 16 <= n0 && y0 + 16 <= n1) {
    const ulong in8 = 8 * (ulong)in_s0, out8 = 8 * (ulong)out_s1;
    pt_block8(in, out, in_s0, out_s1);
    pt_block8(in + in8, out + 8 * LY_SIZE, in_s0, out_s1);
    pt_block8(in + 8 * LY_SIZE, out + out8, in_s0, out_s1);
    pt_block8(in + in8 + 8 * LY_SIZE, out + out8 + 8 * LY_SIZE, in_s0, out_s1);
    return;
  }
  const uint nx = min(16u, n0 - x0), ny = min(16u, n1 - y0);
  for (uint i = 0; i < nx; ++i)
    for (uint j = 0; j < ny; ++j)
      *(__global ly_t *)(out + (ulong)j * out_s1 + i * LY_SIZE) =
          *(__global const ly_t *)(in + (ulong)i * in_s0 + j * LY_SIZE);
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
