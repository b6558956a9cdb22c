/*
 * Quantised matrix product with an encoded coefficient, run as a 1 x 1 convolution:
 * out (N x M, M contiguous) = stages(coef (N x K) x in (K x M, M contiguous)).
 */
// #include "tc_common.h"
#pragma OPENCL EXTENSION cl_nrv_tensorcore : enable
#include "cl_nrv_tc_ext.h"
#include "cl_nrv_tc_lib.h"

#ifndef IN_DTYPE
#error: Missing IN_DTYPE
#endif
#ifndef OUT_DTYPE
#error: Missing OUT_DTYPE
#endif
#ifndef COEF_DTYPE
#error: Missing COEF_DTYPE
#endif
#ifndef M_SIZE
#error: Missing M_SIZE
#endif
#ifndef N_SIZE
#error: Missing N_SIZE
#endif
#ifndef K_SIZE
#error: Missing K_SIZE
#endif
#ifndef IN_DTYPE_SIZE
#error: Missing IN_DTYPE_SIZE
#endif
#ifndef COEF_DTYPE_SIZE
#error: Missing COEF_DTYPE_SIZE
#endif
#ifndef OUT_DTYPE_SIZE
#error: Missing OUT_DTYPE_SIZE
#endif

#ifndef IN_ZERO_POINT
#define IN_ZERO_POINT 0
#endif
#ifndef TRANSPOSE_A
#define TRANSPOSE_A 0
#endif
#ifndef TILE_M
#define TILE_M M_SIZE
#endif
#ifndef TILE_M_PARTIAL
#define TILE_M_PARTIAL 0
#endif
#ifndef TILE_N
#define TILE_N N_SIZE
#endif
#ifndef TILE_N_NUM
#define TILE_N_NUM 1
#endif
#ifndef TILE_H
#define TILE_H 1
#endif
#ifndef TILE_W
#define TILE_W TILE_M
#endif
#ifndef TILE_H_PARTIAL
#define TILE_H_PARTIAL 1
#endif
#ifndef TILE_W_PARTIAL
#define TILE_W_PARTIAL TILE_M_PARTIAL
#endif

#define IN_BITS TC_BITS_TYPE(IN_DTYPE_SIZE)

tc_fusion_data_t encoded_matmul_fusion(void) {
  tc_fusion_data_t fusion = {0};
  TC_FUSION_VERSION(fusion, 1);
#if defined(FUSE_RELU_1) && FUSE_RELU_1
  TC_FUSION_RELU_1(fusion);
#endif
#if defined(FUSE_RESCALE) && FUSE_RESCALE
  TC_FUSION_RESCALE(fusion, FUSE_RESCALE_MUL, FUSE_RESCALE_OUT_SHIFT);
#endif
#if defined(FUSE_RESCALE_PCQ) && FUSE_RESCALE_PCQ
  TC_FUSION_RESCALE_PCQ(fusion, FUSE_RESCALE_PCQ_OUT_SHIFT);
#endif
  return fusion;
}

TC_KERNEL_ATTRIBUTES
__kernel void EncodedMatMul_common(__global char* in, __global char* coef, __global char* out) {
  const tc_fragment_handle_t in_frag = TC_WRAP_FRAGMENT_4D(
      TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(IN_DTYPE), 0, K_SIZE, 1, M_SIZE, 0,
      M_SIZE * IN_DTYPE_SIZE, M_SIZE * IN_DTYPE_SIZE, in);
  const tc_fragment_handle_t coef_frag = TC_WRAP_FRAGMENT_4D(
      TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(COEF_DTYPE), N_SIZE, K_SIZE, 1, 1,
      K_SIZE * COEF_DTYPE_SIZE, COEF_DTYPE_SIZE, COEF_DTYPE_SIZE, coef);
  const tc_fragment_handle_t out_frag = TC_WRAP_FRAGMENT_4D(
      TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(OUT_DTYPE), 0, N_SIZE, 1, M_SIZE, 0,
      M_SIZE * OUT_DTYPE_SIZE, M_SIZE * OUT_DTYPE_SIZE, out);
  TC_CALL_AND_WAIT(tc_conv2d(in_frag, coef_frag, 1, (int4)(0), TC_PAD_MODE_CONST, 0, IN_ZERO_POINT,
                             1, TC_CACHE_MODE_NONE, encoded_matmul_fusion(), TC_EMPTY_FRAGMENT,
                             out_frag, TC_EVENT));
}

/* Stages `rows` columns of M (from m0) of the input, K-major, into local memory. */
void encoded_matmul_stage(__global char* in, __local IN_BITS* tile, int m0, int rows) {
  __global IN_BITS* src = (__global IN_BITS*)in;
  for (int i = get_local_id(0); i < K_SIZE * rows; i += BLOCK_SIZE) {
    const int k = i / rows, j = i % rows;
#if TRANSPOSE_A
    tile[k * TILE_M + j] = src[(long)(m0 + j) * K_SIZE + k];
#else
    tile[k * TILE_M + j] = src[(long)k * M_SIZE + m0 + j];
#endif
  }
  barrier(CLK_LOCAL_MEM_FENCE);
}

/* One TILE_H x TILE_W (or partial) tile of M against every N tile. */
void encoded_matmul_tile(__local IN_BITS* tile, __global char* coef, __global char* offset,
                         __global char* out, int m0, int tile_h, int tile_w) {
  const tc_fragment_handle_t in_frag =
      TC_WRAP_FRAGMENT_4D(TC_SPACE_SPEC_LOCAL, TC_DTYPE_OF(IN_DTYPE), 0, K_SIZE, tile_h, tile_w, 0,
                          TILE_M * IN_DTYPE_SIZE, TILE_W * IN_DTYPE_SIZE, tile);
  for (int nt = 0; nt < TILE_N_NUM; ++nt) {
    int block = ((__global int*)offset)[nt];
#ifdef COEF_BLOCK_LIMIT
    block = clamp(block, 0, COEF_BLOCK_LIMIT); /* stays inside the coefficient buffer */
#endif
    const tc_fragment_handle_t coef_frag = TC_WRAP_FRAGMENT_4D(
        TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(COEF_DTYPE), TILE_N, K_SIZE, 1, 1,
        K_SIZE * COEF_DTYPE_SIZE, COEF_DTYPE_SIZE, COEF_DTYPE_SIZE, coef + block);
    const tc_fragment_handle_t out_frag = TC_WRAP_FRAGMENT_4D(
        TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(OUT_DTYPE), 0, TILE_N, tile_h, tile_w, 0,
        M_SIZE * OUT_DTYPE_SIZE, TILE_W * OUT_DTYPE_SIZE,
        out + ((long)nt * TILE_N * M_SIZE + m0) * OUT_DTYPE_SIZE);
    TC_CALL_AND_WAIT(tc_conv2d(in_frag, coef_frag, 1, (int4)(0), TC_PAD_MODE_CONST, 0,
                               IN_ZERO_POINT, 1, TC_CACHE_MODE_NONE, encoded_matmul_fusion(),
                               TC_EMPTY_FRAGMENT, out_frag, TC_EVENT));
  }
}

/* Work-group x runs the M tile x; word nt of `offset` is the byte offset of the
 * coefficient block of N tile nt. */
TC_KERNEL_ATTRIBUTES
__kernel void EncodedMatMul(__global char* in, __global char* coef, __global char* offset,
                            __global char* out, int vec_size_leftover_k, int vec_size_leftover_m,
                            int vec_size_leftover_m_partial, int tile_n, int tile_n_opt,
                            int k_size, int tile_m, int tile_m_partial) {
  __local IN_BITS tile[TC_ALIGN_UP(K_SIZE * TILE_M * IN_DTYPE_SIZE, LS_ALIGN_SIZE) / IN_DTYPE_SIZE]
      __attribute__((aligned(LS_ALIGN_SIZE)));
  const int m0 = get_group_id(0) * tile_m;
#if TILE_M_PARTIAL == 0
  encoded_matmul_stage(in, tile, m0, tile_m);
  encoded_matmul_tile(tile, coef, offset, out, m0, TILE_H, TILE_W);
#else
  if (m0 + tile_m <= M_SIZE) {
    encoded_matmul_stage(in, tile, m0, tile_m);
    encoded_matmul_tile(tile, coef, offset, out, m0, TILE_H, TILE_W);
  } else {
    encoded_matmul_stage(in, tile, m0, tile_m_partial);
    encoded_matmul_tile(tile, coef, offset, out, m0, TILE_H_PARTIAL, TILE_W_PARTIAL);
  }
#endif
}
