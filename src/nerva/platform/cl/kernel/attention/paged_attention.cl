/*
 * Decode attention over a paged key/value cache.
 *
 * Build definitions: DTYPE, HEAD_DIM, WG (group size).
 *
 * Caches are [num_blocks][kv_heads][block_size][HEAD_DIM]; token t of
 * sequence s lives in block block_tables[s][t / block_size] at row
 * t % block_size. A group takes one (sequence, query head, partition): its
 * items walk the partition's tokens WG apart with their own online softmax,
 * then merge through local memory. A sequence length is clamped to
 * [0, min(max_seq_len, max_blocks * block_size)]; a block id outside
 * [0, num_blocks) drops its tokens. A sequence without tokens gets zeros.
 */

#define LOAD1(p) VLOAD(DTYPE, 1, p)
#define STORE1(v, p) VSTORE(DTYPE, 1, v, p)

inline long load_index(__global const uchar *p, int is64, long i) {
  return is64 ? ((__global const long *)p)[i] : (long)((__global const int *)p)[i];
}

__kernel __attribute__((reqd_work_group_size(WG, 1, 1))) void paged_attention(
    DECL_VIEW(const DTYPE, q), __global const DTYPE *kc, __global const DTYPE *vc,
    __global const uchar *block_tables, int bt64, int max_blocks, __global const uchar *seq_lens,
    int sl64, int num_blocks, int block_size, int kv_heads, int group, float scale,
    int max_seq_len, int partition_size, int num_parts, int direct, DECL_VIEW(DTYPE, out),
    __global float *logits, int write_logits, __global float *max_logits,
    __global float *exp_sums, __global float *tmp_out) {
  __local float lm[WG], ll[WG], lacc[WG][HEAD_DIM];
  const int lid = get_local_id(0);
  const int heads = get_num_groups(1) / num_parts;
  const int h = get_group_id(1) / num_parts, part = get_group_id(1) % num_parts;
  const int s = get_group_id(2), hk = h / group;
  const long len = clamp(load_index(seq_lens, sl64, s), 0L,
                         min((long)max_seq_len, (long)max_blocks * block_size));
  const long start = (long)part * partition_size;
  const long end = min(start + partition_size, len);
  float qr[HEAD_DIM], acc[HEAD_DIM];
  for (int d = 0; d < HEAD_DIM; ++d) {
    qr[d] = LOAD1(VIEW_PTR(q, 0, s, h, d)) * scale;
    acc[d] = 0.0f;
  }
  float m = -INFINITY, l = 0.0f;
  for (long t = start + lid; t < end; t += WG) {
    const long blk = load_index(block_tables, bt64, (long)s * max_blocks + t / block_size);
    float dot = -INFINITY;
    if (blk >= 0 && blk < num_blocks) {
      const long row = ((blk * kv_heads + hk) * block_size + t % block_size) * HEAD_DIM;
      dot = 0.0f;
      for (int d = 0; d < HEAD_DIM; ++d) dot += qr[d] * LOAD1(kc + row + d);
      const float m_new = fmax(m, dot);
      const float alpha = exp(m - m_new), p = exp(dot - m_new);
      l = l * alpha + p;
      for (int d = 0; d < HEAD_DIM; ++d) acc[d] = acc[d] * alpha + p * LOAD1(vc + row + d);
      m = m_new;
    }
    if (write_logits) logits[((long)s * heads + h) * max_seq_len + t] = dot;
  }
  lm[lid] = m;
  ll[lid] = l;
  for (int d = 0; d < HEAD_DIM; ++d) lacc[lid][d] = acc[d];
  barrier(CLK_LOCAL_MEM_FENCE);
  float mx = -INFINITY;
  for (int w = 0; w < WG; ++w) mx = fmax(mx, lm[w]);
  float total = 0.0f;
  for (int w = 0; w < WG; ++w) total += lm[w] == -INFINITY ? 0.0f : exp(lm[w] - mx) * ll[w];
  const float inv = total > 0.0f ? 1.0f / total : 0.0f;
  const long slot = ((long)s * heads + h) * num_parts + part;
  for (int d = lid; d < HEAD_DIM; d += WG) {
    float a = 0.0f;
    for (int w = 0; w < WG; ++w) {
      if (lm[w] != -INFINITY) a += exp(lm[w] - mx) * lacc[w][d];
    }
    if (direct) {
      STORE1(a * inv, VIEW_PTR(out, 0, s, h, d));
    } else {
      tmp_out[slot * HEAD_DIM + d] = a * inv;
    }
  }
  if (!direct && lid == 0) {
    max_logits[slot] = mx;
    exp_sums[slot] = total;
  }
}

/* Merges the partitions of one (sequence, head): weights exp(m_p - M) e_p. */
__kernel __attribute__((reqd_work_group_size(WG, 1, 1))) void paged_attention_reduce(
    __global const float *max_logits, __global const float *exp_sums,
    __global const float *tmp_out, int num_parts, DECL_VIEW(DTYPE, out)) {
  const int lid = get_local_id(0), h = get_group_id(1), s = get_group_id(2);
  const int heads = get_num_groups(1);
  const long base = ((long)s * heads + h) * num_parts;
  float mx = -INFINITY;
  for (int p = 0; p < num_parts; ++p) {
    if (exp_sums[base + p] > 0.0f) mx = fmax(mx, max_logits[base + p]);
  }
  float total = 0.0f;
  for (int p = 0; p < num_parts; ++p) {
    if (exp_sums[base + p] > 0.0f) total += exp(max_logits[base + p] - mx) * exp_sums[base + p];
  }
  const float inv = total > 0.0f ? 1.0f / total : 0.0f;
  for (int d = lid; d < HEAD_DIM; d += WG) {
    float a = 0.0f;
    for (int p = 0; p < num_parts; ++p) {
      const float e = exp_sums[base + p];
      if (e > 0.0f) a += exp(max_logits[base + p] - mx) * e * tmp_out[(base + p) * HEAD_DIM + d];
    }
    STORE1(a * inv, VIEW_PTR(out, 0, s, h, d));
  }
}
