/*
 * Decode attention over a paged key/value cache on the tensor unit, one pass per sequence.
 */
// #include "common.h"
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
#ifndef GQ
#error: Missing GQ
#endif
#ifndef BLOCK_TOKENS
#error: Missing BLOCK_TOKENS
#endif

/* Output elements (GQ heads x HEAD_DIM) each work-item accumulates. */
#define ACC_N ((GQ * HEAD_DIM + BLOCK_SIZE - 1) / BLOCK_SIZE)

inline long tc_load_index(__global const uchar* p, int is64, long i) {
  return is64 ? ((__global const long*)p)[i] : (long)((__global const int*)p)[i];
}

/* Local tiles of one group. */
typedef struct {
  __local TC_BITS* qt;  /* HEAD_DIM x GQ: the queries, transposed */
  __local float* st;    /* BLOCK_TOKENS x GQ: scores */
  __local TC_BITS* pt;  /* BLOCK_TOKENS x GQ: probabilities */
  __local float* pv;    /* GQ x HEAD_DIM: probabilities times values */
  __local float *m_row, *l_row, *a_row;
} paged_tiles_t;

#define PAGED_TILES(t)                          \
  TC_LOCAL(TC_BITS, t##_qt, HEAD_DIM * GQ);     \
  TC_LOCAL(float, t##_st, BLOCK_TOKENS * GQ);   \
  TC_LOCAL(TC_BITS, t##_pt, BLOCK_TOKENS * GQ); \
  TC_LOCAL(float, t##_pv, GQ * HEAD_DIM);       \
  __local float t##_m[GQ], t##_l[GQ], t##_a[GQ]; \
  paged_tiles_t t = {t##_qt, t##_st, t##_pt, t##_pv, t##_m, t##_l, t##_a}

/*
 * The GQ query heads of kv head hk against tokens [start, min(start + partition_size, len))
 * of sequence s, one cache block at a time: scores^T = K_block Q^T and
 * out = (P^T)^T V_block on the tensor unit, the online softmax between them.
 * Caches are [num_blocks][kv_heads][BLOCK_TOKENS][HEAD_DIM]; token t lives in block
 * block_tables[s][t / BLOCK_TOKENS] at row t % BLOCK_TOKENS. The length is clamped to
 * [0, min(max_seq_len, max_blocks * BLOCK_TOKENS)]; a block id outside [0, num_blocks)
 * drops its tokens (score -inf). With direct the normalised rows go to out, else to the
 * partition's slot of tmp_out with its maximum and sum. A partition without tokens
 * gets zeros, maximum -inf and sum 0.
 */
void paged_tc_attend(paged_tiles_t t, DECL_VIEW(const DTYPE, q), __global const char* kc,
                     __global const char* vc, __global const uchar* block_tables, int bt64,
                     int max_blocks, __global const uchar* seq_lens, int sl64, int num_blocks,
                     int kv_heads, float scale, int max_seq_len, int partition_size,
                     int num_parts, int direct, DECL_VIEW(DTYPE, out), __global float* logits,
                     int write_logits, __global float* max_logits, __global float* exp_sums,
                     __global float* tmp_out) {
  const int lid = get_local_id(0);
  const int hk = get_group_id(1) % kv_heads, part = get_group_id(1) / kv_heads;
  const int s = get_group_id(2), heads = kv_heads * GQ;
  const long len = clamp(tc_load_index(seq_lens, sl64, s), 0L,
                         min((long)max_seq_len, (long)max_blocks * BLOCK_TOKENS));
  const long start = (long)part * partition_size;
  const long end = min(start + partition_size, len);
  for (int e = lid; e < HEAD_DIM * GQ; e += BLOCK_SIZE) {
    const int d = e / GQ, g = e - d * GQ;
    t.qt[e] = *(__global const TC_BITS*)VIEW_PTR(q, 0, s, hk * GQ + g, d);
  }
  for (int g = lid; g < GQ; g += BLOCK_SIZE) {
    t.m_row[g] = -INFINITY;
    t.l_row[g] = 0.0f;
  }
  float acc[ACC_N];
  for (int i = 0; i < ACC_N; ++i) acc[i] = 0.0f;
  barrier(CLK_LOCAL_MEM_FENCE);
  const tc_fragment_handle_t q_frag = TC_WRAP_FRAGMENT_2D(
      TC_SPACE_SPEC_LOCAL, TC_DTYPE_OF(DTYPE), HEAD_DIM, GQ, GQ * DTYPE_SIZE, t.qt);
  const tc_fragment_handle_t s_frag =
      TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_LOCAL, TC_DTYPE_float, BLOCK_TOKENS, GQ, GQ * 4, t.st);
  const tc_fragment_handle_t p_frag = TC_WRAP_FRAGMENT_2D(
      TC_SPACE_SPEC_LOCAL, TC_DTYPE_OF(DTYPE), BLOCK_TOKENS, GQ, GQ * DTYPE_SIZE, t.pt);
  const tc_fragment_handle_t o_frag =
      TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_LOCAL, TC_DTYPE_float, GQ, HEAD_DIM, HEAD_DIM * 4, t.pv);
  tc_fusion_data_t fusion = {0};
  TC_FUSION_VERSION(fusion, 1);
  const long first = start / BLOCK_TOKENS, last = (end + BLOCK_TOKENS - 1) / BLOCK_TOKENS;
  for (long bi = first; bi < last; ++bi) {
    const long blk = tc_load_index(block_tables, bt64, (long)s * max_blocks + bi);
    const long t0 = bi * BLOCK_TOKENS;
    if (blk < 0 || blk >= num_blocks) {
      for (int e = lid; write_logits && e < BLOCK_TOKENS * GQ; e += BLOCK_SIZE) {
        const int j = e / GQ, g = e - j * GQ;
        if (t0 + j >= start && t0 + j < end) {
          logits[((long)s * heads + hk * GQ + g) * max_seq_len + t0 + j] = -INFINITY;
        }
      }
      continue;
    }
    const long row = (blk * kv_heads + hk) * BLOCK_TOKENS * HEAD_DIM * DTYPE_SIZE;
    TC_CALL_AND_WAIT(tc_matmul(TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(DTYPE),
                                                   BLOCK_TOKENS, HEAD_DIM, HEAD_DIM * DTYPE_SIZE,
                                                   kc + row),
                               q_frag, false, false, 0, 0, fusion, s_frag, TC_EVENT));
    for (int g = lid; g < GQ; g += BLOCK_SIZE) {
      float m = t.m_row[g], l = t.l_row[g], tile_max = -INFINITY;
      for (int j = 0; j < BLOCK_TOKENS; ++j) {
        const long tok = t0 + j;
        float x = -INFINITY;
        if (tok >= start && tok < end) {
          x = t.st[j * GQ + g] * scale;
          if (write_logits) logits[((long)s * heads + hk * GQ + g) * max_seq_len + tok] = x;
        }
        t.st[j * GQ + g] = x;
        tile_max = fmax(tile_max, x);
      }
      const float m_new = fmax(m, tile_max);
      float alpha = 1.0f;
      if (m_new != -INFINITY) {
        alpha = exp(m - m_new);
        l *= alpha;
      }
      for (int j = 0; j < BLOCK_TOKENS; ++j) {
        const float x = m_new == -INFINITY ? 0.0f : exp(t.st[j * GQ + g] - m_new);
        l += x;
        VSTORE(DTYPE, 1, x, (__local DTYPE*)t.pt + j * GQ + g);
      }
      t.m_row[g] = m_new;
      t.l_row[g] = l;
      t.a_row[g] = alpha;
    }
    barrier(CLK_LOCAL_MEM_FENCE);
    TC_CALL_AND_WAIT(tc_matmul(p_frag,
                               TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(DTYPE),
                                                   BLOCK_TOKENS, HEAD_DIM, HEAD_DIM * DTYPE_SIZE,
                                                   vc + row),
                               true, false, 0, 0, fusion, o_frag, TC_EVENT));
    for (int i = 0; i < ACC_N; ++i) {
      const int e = lid + i * BLOCK_SIZE;
      if (e < GQ * HEAD_DIM) acc[i] = acc[i] * t.a_row[e / HEAD_DIM] + t.pv[e];
    }
    barrier(CLK_LOCAL_MEM_FENCE);
  }
  for (int i = 0; i < ACC_N; ++i) {
    const int e = lid + i * BLOCK_SIZE, g = e / HEAD_DIM, d = e - g * HEAD_DIM;
    if (e >= GQ * HEAD_DIM) continue;
    const float inv = t.l_row[g] > 0.0f ? 1.0f / t.l_row[g] : 0.0f;
    const long slot = ((long)s * heads + hk * GQ + g) * num_parts + part;
    if (direct) {
      VSTORE(DTYPE, 1, acc[i] * inv, VIEW_PTR(out, 0, s, hk * GQ + g, d));
    } else {
      tmp_out[slot * HEAD_DIM + d] = acc[i] * inv;
    }
  }
  for (int g = lid; !direct && g < GQ; g += BLOCK_SIZE) {
    const long slot = ((long)s * heads + hk * GQ + g) * num_parts + part;
    max_logits[slot] = t.m_row[g];
    exp_sums[slot] = t.l_row[g];
  }
}

/* Global (BLOCK_SIZE, kv_heads, sequences). logits [sequences, heads, max_seq_len]
 * receives the scores with write_logits. */
TC_KERNEL_ATTRIBUTES
__kernel void paged_attention_v1_tensorcore(
    DECL_VIEW(const DTYPE, q), __global const char* kc, __global const char* vc,
    __global const uchar* block_tables, int bt64, int max_blocks, __global const uchar* seq_lens,
    int sl64, int num_blocks, int kv_heads, float scale, int max_seq_len, DECL_VIEW(DTYPE, out),
    __global float* logits, int write_logits) {
  PAGED_TILES(tiles);
  paged_tc_attend(tiles, q_ptr, q_off, q_s0, q_s1, q_s2, q_s3, kc, vc, block_tables, bt64,
                  max_blocks, seq_lens, sl64, num_blocks, kv_heads, scale, max_seq_len,
                  max_seq_len, 1, 1, out_ptr, out_off, out_s0, out_s1, out_s2, out_s3, logits,
                  write_logits, logits, logits, logits);
}
