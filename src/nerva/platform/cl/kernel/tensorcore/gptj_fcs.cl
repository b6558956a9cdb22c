/*
 * GPT-J's MLP layers on the tensor unit: fc_in, gelu_tanh(x w^T + b), and
 * fc_out, x w^T + b; the tiles of "tensorcore/gptj_gemm.cl" (built ahead of
 * this text) with the bias and, where gelu is set, the activation applied
 * as the tile is stored.
 */
// #include "tensorcore/gptj_gemm.cl" (gptj_tile_product, gptj_tile_store)

/* Global (BLOCK_SIZE, tiles over N, tiles over M); out is [M, N]. */
TC_KERNEL_ATTRIBUTES
__kernel void gptj_fcs_tensorcore(__global const DTYPE* x, __global const DTYPE* w,
                                  __global const DTYPE* bias, __global DTYPE* out, int M, int N,
                                  int K, int gelu) {
  TC_LOCAL(float, acc, TM * TN);
  const int n0 = get_group_id(1) * TN, m0 = get_group_id(2) * TM;
  const int rows = min(TM, M - m0), cols = min(TN, N - n0);
  gptj_tile_product(x, w, m0, n0, rows, cols, K, acc);
  gptj_tile_store(acc, bias, 1, gelu, out, m0, n0, rows, cols, N, 0);
}
