/*
 * MatMul: out[b][m][n] = sum_k mat1[b][m][k] * mat2[b][k][n] over 3-D
 * descriptors (x batch, y row, z column); transposes and broadcast batches
 * arrive as swapped and zero strides. In GEMM mode
 * out = alpha * acc + beta * input[b][m][n].
 *
 * Build definitions: TILE_M, TILE_N (TILE_K = TILE_N), MAT1_DTYPE,
 * MAT2_DTYPE, ACC_DTYPE, OUT_DTYPE, GEMM_MODE (0/1), IN_DTYPE and
 * ALPHA_BETA_DTYPE (GEMM mode); switches MAT1_IS_ALIGNED and MAT2_IS_ALIGNED
 * (loads need no bounds checks) and OPENCL_DOT4_ENABLED (float accumulation
 * with vector dot products).
 *
 * Work item (n, m, b) = global ids (0, 1, 2) computes one output; a group of
 * TILE_N x TILE_M x Bt items stages, per step of TILE_K, Bt tiles of mat1
 * (row-major, [tz][ty][k]) and of mat2 (transposed, [tz][tx][k]) in local
 * memory, so that both are read along k.
 */
// #include "common.h"

#define TILE_K TILE_N

__kernel void MatMul(__local ACC_DTYPE* a_tile, __local ACC_DTYPE* b_tile,
                     DECL_TENSOR3D(mat1), DECL_TENSOR3D(mat2), DECL_TENSOR3D(out),
#if GEMM_MODE
                     DECL_TENSOR3D(input), float alpha, float beta,
#endif
                     uint B, uint M, uint N, uint K, uint mult_of_tile_k) {
  const uint n = get_global_id(0), m = get_global_id(1), b = get_global_id(2);
  const uint tx = get_local_id(0), ty = get_local_id(1), tz = get_local_id(2);
  __local ACC_DTYPE* a_row = a_tile + (tz * TILE_M + ty) * TILE_K;
  __local ACC_DTYPE* b_col = b_tile + (tz * TILE_N + tx) * TILE_K;
  ACC_DTYPE acc = 0;
  for (uint t = 0; t < mult_of_tile_k; ++t) {
    const uint k0 = t * TILE_K;
#ifdef MAT1_IS_ALIGNED
    a_row[tx] = CONVERT(ACC_DTYPE, 1,
                        VLOAD(MAT1_DTYPE, 1, TENSOR3D_PTR(mat1, MAT1_DTYPE, b, m, k0 + tx)));
#else
    a_row[tx] = (b < B && m < M && k0 + tx < K)
                    ? CONVERT(ACC_DTYPE, 1,
                              VLOAD(MAT1_DTYPE, 1, TENSOR3D_PTR(mat1, MAT1_DTYPE, b, m, k0 + tx)))
                    : (ACC_DTYPE)0;
#endif
#ifdef MAT2_IS_ALIGNED
    b_col[ty] = CONVERT(ACC_DTYPE, 1,
                        VLOAD(MAT2_DTYPE, 1, TENSOR3D_PTR(mat2, MAT2_DTYPE, b, k0 + ty, n)));
#else
    b_col[ty] = (b < B && n < N && k0 + ty < K)
                    ? CONVERT(ACC_DTYPE, 1,
                              VLOAD(MAT2_DTYPE, 1, TENSOR3D_PTR(mat2, MAT2_DTYPE, b, k0 + ty, n)))
                    : (ACC_DTYPE)0;
#endif
    barrier(CLK_LOCAL_MEM_FENCE);
#ifdef OPENCL_DOT4_ENABLED
    acc += dot(vload4(0, a_row), vload4(0, b_col)) + dot(vload4(1, a_row), vload4(1, b_col));
#else
    for (int k = 0; k < TILE_K; ++k) acc += a_row[k] * b_col[k];
#endif
    barrier(CLK_LOCAL_MEM_FENCE);
  }
#if !(defined(MAT1_IS_ALIGNED) && defined(MAT2_IS_ALIGNED))
  if (b >= B || m >= M || n >= N) return;
#endif
#if GEMM_MODE
  const ALPHA_BETA_DTYPE result =
      (ALPHA_BETA_DTYPE)((ACC_DTYPE)alpha * acc) +
      (ALPHA_BETA_DTYPE)((REG_TYPE(IN_DTYPE))beta *
                         VLOAD(IN_DTYPE, 1, TENSOR3D_PTR(input, IN_DTYPE, b, m, n)));
#else
  const ACC_DTYPE result = acc;
#endif
  VSTORE(OUT_DTYPE, 1, CONVERT(OUT_DTYPE, 1, result), TENSOR3D_PTR(out, OUT_DTYPE, b, m, n));
}
