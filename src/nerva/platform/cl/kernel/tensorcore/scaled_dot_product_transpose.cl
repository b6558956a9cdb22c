/*
 * Key and value tiles of the tensor-core attention programs.
 */
// #include "common.h"
// #include "attention.h"
// #include "tc_common.h"

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
#ifndef BK
#error: Missing BK
#endif

/* Copies the keys and values of every (batch, kv head) bh into packed tiles
 * of BK keys, zero past S, as raw element bits:
 *   kt[bh][tile][d][j]  (each tile HEAD_DIM x BK: the key tile transposed),
 *   vp[bh][key][d]      (rows of VALUE_DIM).
 * Global (tiles * BK, max(HEAD_DIM, VALUE_DIM), batch * kv_heads). */
__kernel void sdpa_pack_tensorcore(DECL_VIEW(DTYPE, k), DECL_VIEW(DTYPE, v), __global char* kt,
                                   __global char* vp, int S, int tiles, int kv_heads) {
  const int j = get_global_id(0), d = get_global_id(1), bh = get_global_id(2);
  if (j >= tiles * BK) return;
  const int b = bh / kv_heads, hk = bh % kv_heads;
  __global TC_BITS_TYPE(DTYPE_SIZE)* kt_bits = (__global TC_BITS_TYPE(DTYPE_SIZE)*)kt;
  __global TC_BITS_TYPE(DTYPE_SIZE)* vp_bits = (__global TC_BITS_TYPE(DTYPE_SIZE)*)vp;
  if (d < HEAD_DIM) {
    kt_bits[(((long)bh * tiles + j / BK) * HEAD_DIM + d) * BK + j % BK] =
        j < S ? *(__global TC_BITS_TYPE(DTYPE_SIZE)*)VIEW_PTR(k, b, hk, j, d) : 0;
  }
  if (d < VALUE_DIM) {
    vp_bits[((long)bh * tiles * BK + j) * VALUE_DIM + d] =
        j < S ? *(__global TC_BITS_TYPE(DTYPE_SIZE)*)VIEW_PTR(v, b, hk, j, d) : 0;
  }
}
