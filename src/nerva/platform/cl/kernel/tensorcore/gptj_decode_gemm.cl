/*
 * GPT-J's decode-step products on the tensor unit: a few rows (one token per
 * sequence) against wide weights, so a group takes a TN-column slice of w
 * and walks all M rows in tiles of TM, reusing the slice from the cache.
 * Tiles as "tensorcore/gptj_gemm.cl" (built ahead of this text); bias and
 * gelu as "tensorcore/gptj_fcs.cl", the bias where has_bias is set.
 */
// #include "tensorcore/gptj_gemm.cl" (gptj_tile_product, gptj_tile_store)

/* Global (BLOCK_SIZE, tiles over N); out columns col0 .. of rows of ldo elements. */
TC_KERNEL_ATTRIBUTES
__kernel void gptj_decode_gemm_tensorcore(__global const DTYPE* x, __global const DTYPE* w,
                                          __global const DTYPE* bias, int has_bias,
                                          __global DTYPE* out, int M, int N, int K, int ldo,
                                          int col0, int gelu) {
  TC_LOCAL(float, acc, TM * TN);
  const int n0 = get_group_id(1) * TN;
  const int cols = min(TN, N - n0);
  for (int m0 = 0; m0 < M; m0 += TM) {
    const int rows = min(TM, M - m0);
    gptj_tile_product(x, w, m0, n0, rows, cols, K, acc);
    gptj_tile_store(acc, bias, has_bias, gelu, out, m0, n0, rows, cols, ldo, col0);
  }
}
