/*
 * Packed key and value tiles and the shared pieces of the tensor-core attention backward.
 */
// #include "common.h"
// #include "random.h"
// #include "attention.h"
// #include "tc_common.h"
#pragma OPENCL EXTENSION cl_nrv_tensorcore : enable
#include "cl_nrv_tc_ext.h"
#include "cl_nrv_tc_lib.h"

#ifndef DTYPE
#error: Missing DTYPE
#endif
#ifndef DTYPE_SIZE
#error: Missing DTYPE_SIZE
#endif
#ifndef HEAD_DIM
#error: Missing HEAD_DIM
#endif
#ifndef VALUE_DIM
#error: Missing VALUE_DIM
#endif
#ifndef BQ
#error: Missing BQ
#endif
#ifndef BK
#error: Missing BK
#endif

#define TC_FRAG_LOCAL(dtype, rows, cols, size, p) \
  TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_LOCAL, dtype, rows, cols, (cols) * (size), p)
#define TC_FRAG_GLOBAL(rows, cols, p) \
  TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(DTYPE), rows, cols, (cols) * DTYPE_SIZE, p)

/* Copies the keys and values of every (batch, kv head) bh into tiles of BK keys, zero
 * past S, as raw element bits: kt[bh][tile][d][j] and vt[bh][tile][d][j] (each tile
 * transposed), kp[bh][key][d] (rows). Global (tiles * BK, max(HEAD_DIM, VALUE_DIM),
 * batch * kv_heads). */
__kernel void sdpa_backward_pack_tensorcore(DECL_VIEW(const DTYPE, k), DECL_VIEW(const DTYPE, v),
                                            __global char* kt, __global char* vt,
                                            __global char* kp, int S, int tiles, int kv_heads) {
  const int j = get_global_id(0), d = get_global_id(1), bh = get_global_id(2);
  if (j >= tiles * BK) return;
  const int b = bh / kv_heads, hk = bh % kv_heads;
  const long tile = (long)bh * tiles + j / BK;
  if (d < HEAD_DIM) {
    const TC_BITS x = j < S ? *(__global const TC_BITS*)VIEW_PTR(k, b, hk, j, d) : 0;
    ((__global TC_BITS*)kt)[(tile * HEAD_DIM + d) * BK + j % BK] = x;
    ((__global TC_BITS*)kp)[((long)bh * tiles * BK + j) * HEAD_DIM + d] = x;
  }
  if (d < VALUE_DIM) {
    ((__global TC_BITS*)vt)[(tile * VALUE_DIM + d) * BK + j % BK] =
        j < S ? *(__global const TC_BITS*)VIEW_PTR(v, b, hk, j, d) : 0;
  }
}

/* Rows q0 .. q0 + BQ of a view (zero past L) into local memory as raw bits. */
#define TC_STAGE_ROWS(dst, view, cols, h, q0)                                         \
  for (int e = get_local_id(0); e < BQ * (cols); e += BLOCK_SIZE) {                   \
    const int r = e / (cols), c = e - r * (cols);                                     \
    dst[e] = (q0) + r < L ? *(__global const TC_BITS*)VIEW_PTR(view, b, h, (q0) + r, c) \
                          : (TC_BITS)0;                                               \
  }

/* The probability of query row i and key `key` from its unscaled score and the row's
 * logsumexp (0 past L, S and the causal limit), and its dropout factor in *z. */
inline float tc_bwd_prob(float score, float lse, int i, int key, int L, int S, int causal,
                         float scale, ulong bh, float dropout_p, ulong seed, ulong offset,
                         float* z) {
  *z = 1.0f;
  if (i >= L || key >= S || (causal && key > i) || lse == -INFINITY) return 0.0f;
  if (dropout_p > 0.0f) {
    const ulong idx = ((ulong)bh * (ulong)L + (ulong)i) * (ulong)S + (ulong)key;
    *z = dropout_keep(idx, seed, offset, dropout_p)
             ? (dropout_p >= 1.0f ? 0.0f : 1.0f / (1.0f - dropout_p))
             : 0.0f;
  }
  return exp(score * scale - lse);
}

/* Scores (st) and dO V^T (dpt) of the staged query tile against key tile k0. */
#define TC_BWD_TILE_PRODUCTS(k0)                                                              \
  do {                                                                                        \
    TC_CALL_AND_WAIT(tc_matmul(q_frag,                                                        \
                               TC_FRAG_GLOBAL(HEAD_DIM, BK,                                   \
                                              kt_bh + (long)(k0) * HEAD_DIM * DTYPE_SIZE),    \
                               false, false, 0, 0, fusion, s_frag, TC_EVENT));                \
    TC_CALL_AND_WAIT(tc_matmul(do_frag,                                                       \
                               TC_FRAG_GLOBAL(VALUE_DIM, BK,                                  \
                                              vt_bh + (long)(k0) * VALUE_DIM * DTYPE_SIZE),   \
                               false, false, 0, 0, fusion, dp_frag, TC_EVENT));               \
  } while (0)

#define TC_BWD_PARAMS                                                                    \
  int tiles, int heads, int kv_heads, int L, int S, int group, float scale, int causal, \
      float dropout_p, ulong seed, ulong offset
