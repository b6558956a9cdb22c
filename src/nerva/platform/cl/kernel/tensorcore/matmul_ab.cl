/*
 * Batched integer matrix product on the tensor unit with the K dimension in tiles:
 * out = rescale(relu(mat1 x mat2)).
 */
// #include "tc_common.h"
#pragma OPENCL EXTENSION cl_nrv_tensorcore : enable
#pragma NRV NON_NEGATIVE_MEM_OFFSET
#include "cl_nrv_tc_ext.h"
#include "cl_nrv_tc_lib.h"

#ifndef DIM_M
#error: Missing DIM_M
#endif
#ifndef DIM_N
#error: Missing DIM_N
#endif
#ifndef DIM_K
#error: Missing DIM_K
#endif
#ifndef MAT1_DTYPE
#error: Missing MAT1_DTYPE
#endif
#ifndef MAT2_DTYPE
#error: Missing MAT2_DTYPE
#endif
#ifndef OUT_DTYPE
#error: Missing OUT_DTYPE
#endif
#ifndef MAT1_DTYPE_SIZE
#error: Missing MAT1_DTYPE_SIZE
#endif
#ifndef MAT2_DTYPE_SIZE
#error: Missing MAT2_DTYPE_SIZE
#endif
#ifndef OUT_DTYPE_SIZE
#error: Missing OUT_DTYPE_SIZE
#endif
#ifndef TILE_M
#error: Missing TILE_M
#endif
#ifndef TILE_N
#error: Missing TILE_N
#endif
#ifndef TILE_K
#error: Missing TILE_K
#endif

#ifndef TILE_PARTIAL_M
#define TILE_PARTIAL_M 0
#endif
#ifndef TILE_PARTIAL_N
#define TILE_PARTIAL_N 0
#endif
#ifndef MAT1_ZERO_POINT
#define MAT1_ZERO_POINT 0
#endif
#ifndef MAT2_ZERO_POINT
#define MAT2_ZERO_POINT 0
#endif
#ifndef MAT1_STRIDE_Z
#define MAT1_STRIDE_Z (DIM_M * DIM_K)
#endif
#ifndef MAT2_STRIDE_Z
#define MAT2_STRIDE_Z (DIM_K * DIM_N)
#endif
#ifndef OUT_STRIDE_Z
#define OUT_STRIDE_Z (DIM_M * DIM_N)
#endif
#ifndef MAT1_OFFSET
#define MAT1_OFFSET 0
#endif
#ifndef MAT2_OFFSET
#define MAT2_OFFSET 0
#endif
#ifndef OUT_OFFSET
#define OUT_OFFSET 0
#endif
#ifndef FUSE_RESCALE_IN_SHIFT
#define FUSE_RESCALE_IN_SHIFT 0
#endif
#if defined(FUSE_RESCALE) && FUSE_RESCALE
#define RESCALE_MUL FUSE_RESCALE_MUL
#define RESCALE_SHIFT FUSE_RESCALE_OUT_SHIFT
#else
#define RESCALE_MUL 1
#define RESCALE_SHIFT 0
#endif

#define M_TILES ((DIM_M + TILE_M - 1) / TILE_M)
#define N_TILES ((DIM_N + TILE_N - 1) / TILE_N)
#define K_TILES ((DIM_K + TILE_K - 1) / TILE_K)

/* Global ids: 1 the M tile, 2 the batch times N_TILES plus the N tile. The partial
 * products of the K tiles are summed in local int32 memory, which tc_rescale then
 * converts (rescaled when FUSE_RESCALE) into the output tile. */
TC_KERNEL_ATTRIBUTES
__kernel void matmul_ab_tensorcore(__global char* mat1, __global char* mat2, __global char* out) {
  __local int acc[TILE_M * TILE_N] __attribute__((aligned(LS_ALIGN_SIZE)));
  __local int part[TILE_M * TILE_N] __attribute__((aligned(LS_ALIGN_SIZE)));
  const int mt = get_global_id(1);
  const int nt = get_global_id(2) % N_TILES;
  const int b = get_global_id(2) / N_TILES;
  const int rows = (TILE_PARTIAL_M != 0 && mt == M_TILES - 1) ? TILE_PARTIAL_M : TILE_M;
  const int cols = (TILE_PARTIAL_N != 0 && nt == N_TILES - 1) ? TILE_PARTIAL_N : TILE_N;
  __global char* a_ptr =
      mat1 + (MAT1_OFFSET + (long)b * MAT1_STRIDE_Z + (long)mt * TILE_M * DIM_K) * MAT1_DTYPE_SIZE;
  __global char* b_ptr =
      mat2 + (MAT2_OFFSET + (long)b * MAT2_STRIDE_Z + (long)nt * TILE_N) * MAT2_DTYPE_SIZE;
  __global char* o_ptr = out + (OUT_OFFSET + (long)b * OUT_STRIDE_Z + (long)mt * TILE_M * DIM_N +
                                nt * TILE_N) * OUT_DTYPE_SIZE;
  for (int i = get_local_id(0); i < TILE_M * TILE_N; i += BLOCK_SIZE) acc[i] = 0;
  tc_fusion_data_t none = {0};
  TC_FUSION_VERSION(none, 1);
  const tc_fragment_handle_t p =
      TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_LOCAL, TC_DTYPE_int, rows, cols, cols * 4, part);
  for (int kt = 0; kt < K_TILES; ++kt) {
    const int depth = min(TILE_K, DIM_K - kt * TILE_K);
    const tc_fragment_handle_t a =
        TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(MAT1_DTYPE), rows, depth,
                            DIM_K * MAT1_DTYPE_SIZE, a_ptr + (long)kt * TILE_K * MAT1_DTYPE_SIZE);
    const tc_fragment_handle_t bf = TC_WRAP_FRAGMENT_2D(
        TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(MAT2_DTYPE), depth, cols, DIM_N * MAT2_DTYPE_SIZE,
        b_ptr + (long)kt * TILE_K * DIM_N * MAT2_DTYPE_SIZE);
    TC_CALL_AND_WAIT(
        tc_matmul(a, bf, false, false, MAT1_ZERO_POINT, MAT2_ZERO_POINT, none, p, TC_EVENT));
    for (int i = get_local_id(0); i < rows * cols; i += BLOCK_SIZE) acc[i] += part[i];
    barrier(CLK_LOCAL_MEM_FENCE);
  }
#if defined(FUSE_RELU) && FUSE_RELU
  for (int i = get_local_id(0); i < rows * cols; i += BLOCK_SIZE) acc[i] = max(acc[i], 0);
  barrier(CLK_LOCAL_MEM_FENCE);
#endif
  const tc_fragment_handle_t in =
      TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_LOCAL, TC_DTYPE_int, rows, cols, cols * 4, acc);
  const tc_fragment_handle_t o = TC_WRAP_FRAGMENT_2D(
      TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(OUT_DTYPE), rows, cols, DIM_N * OUT_DTYPE_SIZE, o_ptr);
  TC_CALL_AND_WAIT(tc_rescale(in, FUSE_RESCALE_IN_SHIFT, RESCALE_MUL, RESCALE_SHIFT, o, TC_EVENT));
}
