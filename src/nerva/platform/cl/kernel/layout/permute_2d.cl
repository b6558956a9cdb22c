/*
 * Permute2D: a batched 2-D transpose through local memory. The output is
 * contiguous along x (n0 elements), the input along y (n1 elements); a group
 * of TILE x ROWS work items moves one TILE x TILE tile: it reads rows of the
 * tile along the input's contiguous dimension and writes them along the
 * output's, so both sides access whole runs of memory. z is the batch.
 */
// #include "layout.h"

#define TILE 32
#define ROWS 8

__kernel __attribute__((reqd_work_group_size(TILE, ROWS, 1))) void Permute2D(
    uint n0, uint n1, __global uchar *out_ptr, uint out_offset, uint out_s1, uint out_sb,
    __global uchar *in_ptr, uint in_offset, uint in_s0, uint in_sb) {
  __local ly_t tile[TILE][TILE + 1];
  const uint lx = get_local_id(0), ly = get_local_id(1);
  const uint x0 = get_group_id(0) * TILE, y0 = get_group_id(1) * TILE;
  const uint b = get_global_id(2);
  const uint in_base = in_offset + b * in_sb;
  for (uint r = ly; r < TILE; r += ROWS) {
    const uint x = x0 + r, y = y0 + lx;
    if (x < n0 && y < n1) tile[r][lx] = LY_AT(in_ptr, in_base + x * in_s0 + y * LY_SIZE);
  }
  barrier(CLK_LOCAL_MEM_FENCE);
  const uint out_base = out_offset + b * out_sb;
  for (uint r = ly; r < TILE; r += ROWS) {
    const uint x = x0 + lx, y = y0 + r;
    if (x < n0 && y < n1) LY_AT(out_ptr, out_base + x * LY_SIZE + y * out_s1) = tile[lx][r];
  }
}
