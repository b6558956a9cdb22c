/*
 * Decode attention over a paged key/value cache.
 *
 * Build definitions: DTYPE, HEAD_DIM, GQ (query heads per kv head), VW
 * (vector width dividing HEAD_DIM), WG (group size).
 *
 * Caches are [num_blocks][kv_heads][block_size][HEAD_DIM]; token t of
 * sequence s lives in block block_tables[s][t / block_size] at row
 * t % block_size. A group takes one (sequence, kv head, partition) and all GQ
 * query heads that read that kv head, so each key and value row is read once.
 * Its items take chunks of TB consecutive tokens WG chunks apart: the scores
 * of a chunk (vector dot products over HEAD_DIM), one online-softmax step for
 * the chunk, then the value rows weighted into the accumulators. The items
 * merge through local memory. A sequence length is clamped to
 * [0, min(max_seq_len, max_blocks * block_size)]; a block id outside
 * [0, num_blocks) drops its tokens. A sequence without tokens gets zeros.
 */

#define LOAD1(p) VLOAD(DTYPE, 1, p)
#define STORE1(v, p) VSTORE(DTYPE, 1, v, p)
#define TB 16
#define NVH (HEAD_DIM / VW)
#define VT NERVA_VEC(float, VW)

inline long load_index(__global const uchar *p, int is64, long i) {
  return is64 ? ((__global const long *)p)[i] : (long)((__global const int *)p)[i];
}

/* Sum of the lanes of a VT. */
inline float lane_sum(VT v) {
#if VW == 16
  return hsum16(v);
#elif VW == 8
  const float4 a = v.lo + v.hi;
  const float2 b = a.lo + a.hi;
  return b.x + b.y;
#elif VW == 4
  const float2 b = v.lo + v.hi;
  return b.x + b.y;
#elif VW == 2
  return v.x + v.y;
#else
  return v;
#endif
}

__kernel __attribute__((reqd_work_group_size(WG, 1, 1))) void paged_attention(
    DECL_VIEW(const DTYPE, q), __global const DTYPE *kc, __global const DTYPE *vc,
    __global const uchar *block_tables, int bt64, int max_blocks, __global const uchar *seq_lens,
    int sl64, int num_blocks, int block_size, int kv_heads, float scale, int max_seq_len,
    int partition_size, int num_parts, int direct, DECL_VIEW(DTYPE, out), __global float *logits,
    int write_logits, __global float *max_logits, __global float *exp_sums,
    __global float *tmp_out) {
  __local float lm[WG][GQ], ll[WG][GQ], lacc[WG][GQ][HEAD_DIM];
  const int lid = get_local_id(0);
  const int heads = kv_heads * GQ;
  /* The kv heads of one partition are neighbouring groups: they read the
   * same blocks, whose page-table entries then stay in the cache. */
  const int hk = get_group_id(1) % kv_heads, part = get_group_id(1) / kv_heads;
  const int s = get_group_id(2);
  const long len = clamp(load_index(seq_lens, sl64, s), 0L,
                         min((long)max_seq_len, (long)max_blocks * block_size));
  const long start = (long)part * partition_size;
  const long end = min(start + partition_size, len);
  VT qv[GQ][NVH], acc[GQ][NVH];
  float m[GQ], l[GQ];
  for (int g = 0; g < GQ; ++g) {
    float qa[HEAD_DIM];
    for (int d = 0; d < HEAD_DIM; ++d) qa[d] = LOAD1(VIEW_PTR(q, 0, s, hk * GQ + g, d)) * scale;
#pragma unroll
    for (int c = 0; c < NVH; ++c) {
      qv[g][c] = NERVA_LOADN(VW, qa + c * VW);
      acc[g][c] = (VT)(0.0f);
    }
    m[g] = -INFINITY;
    l[g] = 0.0f;
  }
  for (long c0 = start + (long)lid * TB; c0 < end; c0 += (long)WG * TB) {
    long rows[TB];
    float sc[GQ][TB];
    /* Block-table position of the chunk's first token, then step by step. */
    long bi = c0 / block_size;
    int off = (int)(c0 - bi * block_size);
    long blk = load_index(block_tables, bt64, (long)s * max_blocks + bi);
#ifdef NERVA_HOST_CPU_DEVICE
    /* The next chunk's key and value rows (those in its first block) are
     * requested now: the blocks lie anywhere, so the hardware cannot guess
     * them, and each is a page of its own. */
    const long n0 = c0 + (long)WG * TB;
    if (n0 < end) {
      const long nbi = n0 / block_size, nblk = load_index(block_tables, bt64,
                                                          (long)s * max_blocks + nbi);
      const int noff = (int)(n0 - nbi * block_size);
      if (nblk >= 0 && nblk < num_blocks) {
        const long at = ((nblk * kv_heads + hk) * block_size + noff) * HEAD_DIM;
        const long bytes = (long)min(TB, block_size - noff) * HEAD_DIM * (long)sizeof(DTYPE);
        NERVA_PREFETCH_BYTES(kc + at, bytes);
        NERVA_PREFETCH_BYTES(vc + at, bytes);
      }
    }
#endif
    for (int j = 0; j < TB; ++j) {
      const long t = c0 + j;
      const long row = t < end && blk >= 0 && blk < num_blocks
                           ? ((blk * kv_heads + hk) * block_size + off) * HEAD_DIM
                           : -1;
      if (++off == block_size && t + 1 < end) {
        off = 0;
        blk = load_index(block_tables, bt64, (long)s * max_blocks + ++bi);
      }
      rows[j] = row;
      for (int g = 0; g < GQ; ++g) {
        float dot = -INFINITY;
        if (row >= 0) {
          VT a = (VT)(0.0f);
#pragma unroll
          for (int c = 0; c < NVH; ++c) a = fma(qv[g][c], VLOAD(DTYPE, VW, kc + row + c * VW), a);
          dot = lane_sum(a);
        }
        sc[g][j] = dot;
        if (write_logits && t < end) {
          logits[((long)s * heads + hk * GQ + g) * max_seq_len + t] = dot;
        }
      }
    }
    for (int g = 0; g < GQ; ++g) {
      const float16 x = vload16(0, sc[g]);
      const float m_new = fmax(m[g], hmax16(x));
      const float m_use = m_new == -INFINITY ? 0.0f : m_new;
      const float16 p = exp16(x - m_use);
      if (m_new > m[g]) {
        const float alpha = exp(m[g] - m_use);
        l[g] *= alpha;
#pragma unroll
        for (int c = 0; c < NVH; ++c) acc[g][c] *= alpha;
        m[g] = m_new;
      }
      l[g] += hsum16(p);
      vstore16(p, 0, sc[g]);
    }
    for (int j = 0; j < TB; ++j) {
      if (rows[j] < 0) continue;
#pragma unroll
      for (int c = 0; c < NVH; ++c) {
        const VT vv = VLOAD(DTYPE, VW, vc + rows[j] + c * VW);
        for (int g = 0; g < GQ; ++g) acc[g][c] = fma((VT)(sc[g][j]), vv, acc[g][c]);
      }
    }
  }
  for (int g = 0; g < GQ; ++g) {
    lm[lid][g] = m[g];
    ll[lid][g] = l[g];
#pragma unroll
    for (int c = 0; c < NVH; ++c) NERVA_STOREN(VW, acc[g][c], &lacc[lid][g][c * VW]);
  }
  barrier(CLK_LOCAL_MEM_FENCE);
  for (int g = 0; g < GQ; ++g) {
    const int h = hk * GQ + g;
    float mx = -INFINITY;
    for (int w = 0; w < WG; ++w) mx = fmax(mx, lm[w][g]);
    float total = 0.0f;
    for (int w = 0; w < WG; ++w) total += lm[w][g] == -INFINITY ? 0.0f : exp(lm[w][g] - mx) * ll[w][g];
    const float inv = total > 0.0f ? 1.0f / total : 0.0f;
    const long slot = ((long)s * heads + h) * num_parts + part;
    for (int d = lid; d < HEAD_DIM; d += WG) {
      float a = 0.0f;
      for (int w = 0; w < WG; ++w) {
        if (lm[w][g] != -INFINITY) a += exp(lm[w][g] - mx) * lacc[w][g][d];
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
