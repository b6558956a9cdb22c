/*
 * Decode attention over a paged key/value cache on the tensor unit, in partitions.
 */
// #include "common.h"
// #include "attention.h"
// #include "tc_common.h"
// #include "paged_attention_v1.cl" (paged_tc_attend)

/* Global (BLOCK_SIZE, kv_heads * num_parts, sequences): one partition of
 * partition_size tokens per group; its normalised output goes to
 * tmp_out [sequences, heads, num_parts, HEAD_DIM], its maximum score and
 * sum of exponentials to max_logits and exp_sums [sequences, heads, num_parts]. */
TC_KERNEL_ATTRIBUTES
__kernel void paged_attention_v2_tensorcore(
    DECL_VIEW(const DTYPE, q), __global const char* kc, __global const char* vc,
    __global const uchar* block_tables, int bt64, int max_blocks, __global const uchar* seq_lens,
    int sl64, int num_blocks, int kv_heads, float scale, int max_seq_len, int partition_size,
    int num_parts, __global float* max_logits, __global float* exp_sums,
    __global float* tmp_out) {
  PAGED_TILES(tiles);
  paged_tc_attend(tiles, q_ptr, q_off, q_s0, q_s1, q_s2, q_s3, kc, vc, block_tables, bt64,
                  max_blocks, seq_lens, sl64, num_blocks, kv_heads, scale, max_seq_len,
                  partition_size, num_parts, 0, (__global DTYPE*)tmp_out, 0, 0, 0, 0, 0,
                  tmp_out, 0, max_logits, exp_sums, tmp_out);
}
