/*
 * GPT-J's matrix products on the tensor unit: out = x w^T (+ bias), with x
 * [M, K] and w [N, K] row-major DTYPE, written to columns col0 .. col0 + N of
 * rows of ldo elements (so the three projections fill one [M, 3 E] buffer).
 * A group takes a TM x TN tile: the product goes through tc_matmul into a
 * local float tile, and the group's items add the bias, apply GPT-J's tanh
 * GELU where asked, and store.
 * Build definitions: DTYPE, DTYPE_SIZE, TM, TN.
 */
// #include "common.h"
// #include "tc_common.h"
#pragma OPENCL EXTENSION cl_nrv_tensorcore : enable
#include "cl_nrv_tc_ext.h"
#include "cl_nrv_tc_lib.h"

#define GPTJ_LOAD1(p) VLOAD(DTYPE, 1, p)
#define GPTJ_STORE1(v, p) VSTORE(DTYPE, 1, v, p)

/* 0.5 v (1 + tanh(sqrt(2 / pi) (v + 0.044715 v^3))). */
inline float gptj_gelu_tanh(float v) {
  return 0.5f * v * (1.0f + tanh(0.7978845608028654f * (v + 0.044715f * v * v * v)));
}

/* acc (rows x cols of a TM x TN local tile) = rows m0.. of x times rows n0.. of w, transposed. */
inline void gptj_tile_product(__global const DTYPE* x, __global const DTYPE* w, int m0, int n0,
                              int rows, int cols, int K, __local float* acc) {
  tc_fusion_data_t fusion = {0};
  TC_FUSION_VERSION(fusion, 1);
  TC_CALL_AND_WAIT(tc_matmul(
      TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(DTYPE), rows, K, K * DTYPE_SIZE,
                          x + (long)m0 * K),
      TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(DTYPE), cols, K, K * DTYPE_SIZE,
                          w + (long)n0 * K),
      false, true, 0, 0, fusion,
      TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_LOCAL, TC_DTYPE_float, rows, cols, TN * 4, acc),
      TC_EVENT));
}

/* Stores the tile with bias[n0 + c] added where has_bias is set and the GELU where gelu is. */
inline void gptj_tile_store(__local const float* acc, __global const DTYPE* bias, int has_bias,
                            int gelu,
                            __global DTYPE* out, int m0, int n0, int rows, int cols, int ldo,
                            int col0) {
  for (int e = get_local_id(0); e < rows * cols; e += BLOCK_SIZE) {
    const int r = e / cols, c = e - r * cols;
    float v = acc[r * TN + c];
    if (has_bias) v += GPTJ_LOAD1(bias + n0 + c);
    if (gelu) v = gptj_gelu_tanh(v);
    GPTJ_STORE1(v, out + (long)(m0 + r) * ldo + col0 + n0 + c);
  }
  barrier(CLK_LOCAL_MEM_FENCE);
}

/* Global (BLOCK_SIZE, tiles over N, tiles over M); no bias. */
TC_KERNEL_ATTRIBUTES
__kernel void gptj_gemm_tensorcore(__global const DTYPE* x, __global const DTYPE* w,
                                   __global DTYPE* out, int M, int N, int K, int ldo, int col0) {
  TC_LOCAL(float, acc, TM * TN);
  const int n0 = get_group_id(1) * TN, m0 = get_group_id(2) * TM;
  const int rows = min(TM, M - m0), cols = min(TN, N - n0);
  gptj_tile_product(x, w, m0, n0, rows, cols, K, acc);
  gptj_tile_store(acc, w, 0, 0, out, m0, n0, rows, cols, ldo, col0);
}
