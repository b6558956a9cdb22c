/*
 * Counter-based Philox-4x32-10 generator shared by the random programs.
 *
 * A stream is (seed, subsequence, offset): the key is the seed's two words,
 * the counter is (offset lo, offset hi, subsequence lo, subsequence hi), and
 * the first output block is the ten-round image of that counter. Each later
 * block is the ten-round image of the previous block. Every work item uses its
 * global id as the subsequence, so results do not depend on scheduling (the
 * CPU-device kernels fill runs of those streams per work item, with the same
 * numbers).
 *
 * Floating conversions are kept free of fused multiply-adds so that every
 * device produces the same bits (and a host model can reproduce them).
 */
#ifndef NERVA_RANDOM_H
#define NERVA_RANDOM_H

#pragma OPENCL FP_CONTRACT OFF

#define PHILOX10A 0x9E3779B9u
#define PHILOX10B 0xBB67AE85u
#define PHILOXSA 0xD2511F53u
#define PHILOXSB 0xCD9E8D57u
#define RAN_INV_M32 2.3283064e-10f
#define RAND_2POW32_INV 2.3283064e-10f
#define RAND_2POW32_INV_2PI (2.3283064e-10f * 6.2831855f)
#define RAND_EXTRA_FLAG_NONE 0
#define RAND_EXTRA_FLAG_NORMAL 1
#define RAND_EXTRA_FLAG_LOG_NORMAL 2

/* The generator arguments of every random kernel: seed and launch offset. */
#define DECL_PHILOX_STATE ulong philox_args_seed, ulong philox_args_offset

/* Every helper is inlined: CPU devices vectorise a kernel across work items
 * only when it makes no calls. */
#define RANDOM_INLINE inline __attribute__((always_inline))

typedef struct {
  uchar stat;           /* next word (0-3) of ctr to hand out */
  uint2 key;
  uint4 ctr;            /* current output block */
  int boxmuller_flag;   /* RAND_EXTRA_FLAG_*: what boxmuller_extra holds */
  float boxmuller_extra;
} philox4x32_state_t;

/* One round on scalar words (CPU devices vectorise scalar code across work
 * items): (hi(SB * c.z) ^ c.y ^ k.x, lo(SB * c.z), hi(SA * c.x) ^ c.w ^ k.y,
 * lo(SA * c.x)). */
#define PHILOX_ROUND(c0, c1, c2, c3, k0, k1)                                   \
  {                                                                          \
    const ulong pa = (ulong)PHILOXSA * c0, pb = (ulong)PHILOXSB * c2;        \
    const uint n0 = (uint)(pb >> 32) ^ c1 ^ k0, n2 = (uint)(pa >> 32) ^ c3 ^ k1; \
    c0 = n0;                                                                 \
    c1 = (uint)pb;                                                           \
    c2 = n2;                                                                 \
    c3 = (uint)pa;                                                           \
  }

RANDOM_INLINE uint4 philox4x32_round(uint4 c, uint2 k) {
  uint c0 = c.x, c1 = c.y, c2 = c.z, c3 = c.w;
  PHILOX_ROUND(c0, c1, c2, c3, k.x, k.y)
  return (uint4)(c0, c1, c2, c3);
}

/* A round, then nine times: key += (PHILOX10A, PHILOX10B) and a round. */
RANDOM_INLINE uint4 philox4x32_10(uint4 c, uint2 k) {
  uint c0 = c.x, c1 = c.y, c2 = c.z, c3 = c.w, k0 = k.x, k1 = k.y;
#pragma unroll
  for (int i = 0; i < 10; ++i) {
    PHILOX_ROUND(c0, c1, c2, c3, k0, k1)
    k0 += PHILOX10A;
    k1 += PHILOX10B;
  }
  return (uint4)(c0, c1, c2, c3);
}

RANDOM_INLINE void rand_init(ulong seed, ulong subsequence, ulong offset, philox4x32_state_t *state) {
  state->key = (uint2)((uint)seed, (uint)(seed >> 32));
  state->ctr = philox4x32_10(
      (uint4)((uint)offset, (uint)(offset >> 32), (uint)subsequence, (uint)(subsequence >> 32)),
      state->key);
  state->stat = 0;
  state->boxmuller_flag = RAND_EXTRA_FLAG_NONE;
  state->boxmuller_extra = 0.0f;
}

RANDOM_INLINE uint philox_word(uint4 block, uint i) {
  return i == 0 ? block.x : (i == 1 ? block.y : (i == 2 ? block.z : block.w));
}

RANDOM_INLINE uint rand(philox4x32_state_t *state) {
  const uint r = philox_word(state->ctr, state->stat);
  if (++state->stat == 4) {
    state->ctr = philox4x32_10(state->ctr, state->key);
    state->stat = 0;
  }
  return r;
}

/* Four words from `stat` on; always moves to the next block, `stat` unchanged. */
RANDOM_INLINE uint4 rand4(philox4x32_state_t *state) {
  const uint4 cur = state->ctr;
  const uint4 next = philox4x32_10(cur, state->key);
  state->ctr = next;
  switch (state->stat) {
    case 1:
      return (uint4)(cur.y, cur.z, cur.w, next.x);
    case 2:
      return (uint4)(cur.z, cur.w, next.x, next.y);
    case 3:
      return (uint4)(cur.w, next.x, next.y, next.z);
    default:
      return cur;
  }
}

/* word * 2^-32 + 2^-33: inside (0, 1), rounding to 1.0f for the top words. */
/* (float)x, rounded to nearest even, from two exact 16-bit halves: one
 * rounding in the sum. Signed conversions vectorise on CPU devices where the
 * unsigned one does not. */
RANDOM_INLINE float word_to_float(uint x) {
  return (float)(int)(x >> 16) * 65536.0f + (float)(int)(x & 0xFFFFu);
}

RANDOM_INLINE float uniform_from_word(uint x) {
  const float scaled = word_to_float(x) * RAND_2POW32_INV;
  return scaled + RAND_2POW32_INV / 2.0f;
}

RANDOM_INLINE float4 uniform4_from_words(uint4 x) {
  return (float4)(uniform_from_word(x.x), uniform_from_word(x.y), uniform_from_word(x.z),
                  uniform_from_word(x.w));
}

RANDOM_INLINE float rand_uniform(philox4x32_state_t *state) { return uniform_from_word(rand(state)); }

RANDOM_INLINE float4 rand_uniform4(philox4x32_state_t *state) {
  return uniform4_from_words(rand4(state));
}

/* Box-Muller on two words: (sin(v) * s, cos(v) * s). */
RANDOM_INLINE float2 box_muller(uint x, uint y) {
  const float u = uniform_from_word(x);
  const float v = word_to_float(y) * RAND_2POW32_INV_2PI + RAND_2POW32_INV_2PI / 2.0f;
  const float s = sqrt(-2.0f * log(u));
  return (float2)(sin(v) * s, cos(v) * s);
}

RANDOM_INLINE float rand_normal(philox4x32_state_t *state) {
  if (state->boxmuller_flag == RAND_EXTRA_FLAG_NORMAL) {
    state->boxmuller_flag = RAND_EXTRA_FLAG_NONE;
    return state->boxmuller_extra;
  }
  const uint x = rand(state);
  const float2 pair = box_muller(x, rand(state));
  state->boxmuller_extra = pair.y;
  state->boxmuller_flag = RAND_EXTRA_FLAG_NORMAL;
  return pair.x;
}

RANDOM_INLINE float4 rand_normal4(philox4x32_state_t *state) {
  const uint4 w = rand4(state);
  return (float4)(box_muller(w.x, w.y), box_muller(w.z, w.w));
}

RANDOM_INLINE float rand_log_normal(philox4x32_state_t *state, float mean, float stddev) {
  if (state->boxmuller_flag == RAND_EXTRA_FLAG_LOG_NORMAL) {
    state->boxmuller_flag = RAND_EXTRA_FLAG_NONE;
    return exp(mean + stddev * state->boxmuller_extra);
  }
  const uint x = rand(state);
  const float2 pair = box_muller(x, rand(state));
  state->boxmuller_extra = pair.y;
  state->boxmuller_flag = RAND_EXTRA_FLAG_LOG_NORMAL;
  return exp(mean + stddev * pair.x);
}

RANDOM_INLINE float4 rand_log_normal4(philox4x32_state_t *state, float mean, float stddev) {
  return exp(mean + stddev * rand_normal4(state));
}

/* The first block of a fresh stream as four scalar words: the same words as
 * rand_init(seed, subsequence, offset) followed by rand4. Kernels use this
 * scalar form so that CPU devices can vectorise them across work items. */
#define PHILOX_FIRST_BLOCK(seed, subsequence, offset, w0, w1, w2, w3)          \
  uint w0 = (uint)(offset), w1 = (uint)((ulong)(offset) >> 32);             \
  uint w2 = (uint)(subsequence), w3 = (uint)((ulong)(subsequence) >> 32);   \
  {                                                                          \
    uint k0 = (uint)(seed), k1 = (uint)((ulong)(seed) >> 32);               \
    _Pragma("unroll") for (int r = 0; r < 10; ++r) {                         \
      PHILOX_ROUND(w0, w1, w2, w3, k0, k1)                                   \
      k0 += PHILOX10A;                                                       \
      k1 += PHILOX10B;                                                       \
    }                                                                        \
  }

/* Logarithm, sine and cosine for Box-Muller. CPU devices get branch-free
 * polynomial forms (about 1e-7 relative error) that vectorise across work
 * items, where the library calls do not; other devices use the library. */
#ifdef NERVA_HOST_CPU_DEVICE
/* ln u for u > 0: u = m * 2^e with m in [sqrt(1/2), sqrt(2)), ln m by the
 * atanh series in t = (m - 1) / (m + 1). Defined for float (W empty) and
 * float16 (W = 16) from one body, so both give the same bits. */
#define RANDOM_DEFINE_LOG(W)                                                   \
  RANDOM_INLINE float##W random_log##W(float##W u) {                         \
    const int##W bits = as_int##W(u);                                        \
    const int##W e = ((bits >> 23) & 0xFF) - 127;                            \
    const float##W m0 = as_float##W((bits & 0x007FFFFF) | 0x3F800000);       \
    const int##W big = m0 > 1.41421356f;                                     \
    const float##W m = select(m0, m0 * 0.5f, big);                           \
    const float##W t = (m - 1.0f) / (m + 1.0f), t2 = t * t;                  \
    float##W p = fma(t2, (float##W)0.222222222f, (float##W)0.285714286f);   \
    p = fma(t2, p, (float##W)0.4f);                                          \
    p = fma(t2, p, (float##W)0.666666667f);                                  \
    p = fma(t2, p, (float##W)2.0f);                                          \
    return fma(convert_float##W(select(e, e + 1, big)), (float##W)0.693147181f, t * p); \
  }
/* sin and cos of v in [0, 2 pi): quadrant reduction to [-pi/4, pi/4]. */
#define RANDOM_DEFINE_SINCOS(W)                                                \
  RANDOM_INLINE void random_sincos##W(float##W v, float##W *s, float##W *c) { \
    /* Round to nearest: adding and removing 1.5 * 2^23 leaves an integer. */ \
    const float##W q = (v * 0.636619772f + 12582912.0f) - 12582912.0f;       \
    const float##W x = fma(-q, (float##W)7.54978995e-8f, fma(-q, (float##W)1.57079625f, v)); \
    const float##W x2 = x * x;                                               \
    float##W ps = fma(x2, (float##W)2.75573192e-6f, (float##W)-1.98412698e-4f); \
    ps = fma(x2, ps, (float##W)8.33333333e-3f);                              \
    ps = fma(x2, ps, (float##W)-0.166666667f);                               \
    const float##W sx = fma(x * x2, ps, x);                                  \
    float##W pc = fma(x2, (float##W)2.48015873e-5f, (float##W)-1.38888889e-3f); \
    pc = fma(x2, pc, (float##W)4.16666667e-2f);                              \
    pc = fma(x2, pc, (float##W)-0.5f);                                       \
    const float##W cx = fma(x2, pc, (float##W)1.0f);                         \
    const int##W k = convert_int##W(q) & 3;                                  \
    const int##W odd = (k & 1) != 0;                                         \
    const float##W sv = select(sx, cx, odd), cv = select(cx, sx, odd);       \
    *s = select(-sv, sv, k <= 1);                                            \
    *c = select(-cv, cv, k == 0 || k == 3);                                  \
  }
RANDOM_DEFINE_LOG()
RANDOM_DEFINE_SINCOS()
#else
#define random_log(u) log(u)
RANDOM_INLINE void random_sincos(float v, float *s, float *c) {
  *s = sin(v);
  *c = cos(v);
}
#endif

/* ---- CPU devices: eight streams per vector ----
 * One work item fills a run of consecutive streams, eight at a time, in
 * explicit 64-bit-lane vectors: stream j of the eight keeps its counter word
 * w in the low half of lane j of cw (the upper half is ignored), so a round is
 * two 32x32->64 multiplies, two shifts and two three-way xors for all eight.
 * The numbers are those of the scalar form, bit for bit. */
#ifdef NERVA_HOST_CPU_DEVICE
#define RANDOM_LOW32 ((ulong8)0xFFFFFFFFul)
/* Counter words of eight streams from `first` on, before the rounds. */
RANDOM_INLINE void philox8_start(ulong first, ulong offset, ulong8 *w) {
  w[0] = (ulong8)((uint)offset);
  w[1] = (ulong8)((uint)(offset >> 32));
  const ulong8 sub = (ulong8)(first) + (ulong8)(0, 1, 2, 3, 4, 5, 6, 7);
  w[2] = sub & RANDOM_LOW32;
  w[3] = sub >> 32;
}

RANDOM_INLINE void philox8_round(ulong8 *w, ulong k0, ulong k1) {
  const ulong8 pa = (w[0] & RANDOM_LOW32) * (ulong)PHILOXSA;
  const ulong8 pb = (w[2] & RANDOM_LOW32) * (ulong)PHILOXSB;
  w[0] = (pb >> 32) ^ w[1] ^ (ulong8)(k0);
  w[1] = pb;
  w[2] = (pa >> 32) ^ w[3] ^ (ulong8)(k1);
  w[3] = pa;
}

RANDOM_INLINE void philox8_first_blocks(ulong seed, ulong first, ulong offset, ulong8 *c0,
                                        ulong8 *c1, ulong8 *c2, ulong8 *c3) {
  ulong8 w[4];
  philox8_start(first, offset, w);
  ulong k0 = (uint)seed, k1 = (uint)(seed >> 32);
#pragma unroll
  for (int r = 0; r < 10; ++r) {
    philox8_round(w, k0, k1);
    k0 = (uint)(k0 + PHILOX10A);
    k1 = (uint)(k1 + PHILOX10B);
  }
  *c0 = w[0];
  *c1 = w[1];
  *c2 = w[2];
  *c3 = w[3];
}

/* Sixteen streams from `first` on as two sets of eight (a: the first eight),
 * their rounds interleaved: one set's rounds form a chain of dependent
 * multiplies, and two chains keep the vector units busy. */
RANDOM_INLINE void philox16_first_blocks(ulong seed, ulong first, ulong offset, ulong8 *a,
                                         ulong8 *b) {
  philox8_start(first, offset, a);
  philox8_start(first + 8, offset, b);
  ulong k0 = (uint)seed, k1 = (uint)(seed >> 32);
#pragma unroll
  for (int r = 0; r < 10; ++r) {
    philox8_round(a, k0, k1);
    philox8_round(b, k0, k1);
    k0 = (uint)(k0 + PHILOX10A);
    k1 = (uint)(k1 + PHILOX10B);
  }
}

/* The 32 words of the eight streams in stream order, 16 per vector. */
RANDOM_INLINE void philox8_in_order(ulong8 c0, ulong8 c1, ulong8 c2, ulong8 c3, uint16 *lo,
                                    uint16 *hi) {
  const ulong8 a = (c0 & RANDOM_LOW32) | (c1 << 32), b = (c2 & RANDOM_LOW32) | (c3 << 32);
  *lo = as_uint16(shuffle2(a, b, (ulong8)(0, 8, 1, 9, 2, 10, 3, 11)));
  *hi = as_uint16(shuffle2(a, b, (ulong8)(4, 12, 5, 13, 6, 14, 7, 15)));
}

/* The low words of two counter vectors side by side. */
RANDOM_INLINE uint16 philox8_words(ulong8 a, ulong8 b) {
  return (uint16)(convert_uint8(a & RANDOM_LOW32), convert_uint8(b & RANDOM_LOW32));
}

/* uniform_from_word on 16 words: the unsigned conversion rounds to nearest
 * even like word_to_float, and the scaling by 2^-32 is exact. */
RANDOM_INLINE float16 uniform16_from_words(uint16 x) {
  return convert_float16(x) * RAND_2POW32_INV + RAND_2POW32_INV / 2.0f;
}

RANDOM_DEFINE_LOG(16)
RANDOM_DEFINE_SINCOS(16)

/* Box-Muller on 16 word pairs (x, y): (sin(v) * s, cos(v) * s) per lane. */
RANDOM_INLINE void box_muller16(uint16 x, uint16 y, float16 *n0, float16 *n1) {
  const float16 u = uniform16_from_words(x);
  const float16 v = convert_float16(y) * RAND_2POW32_INV_2PI + RAND_2POW32_INV_2PI / 2.0f;
  const float16 s = sqrt(-2.0f * random_log16(u));
  float16 sn, cs;
  random_sincos16(v, &sn, &cs);
  *n0 = sn * s;
  *n1 = cs * s;
}

/* Sixteen floats of the output type at p, which need not be aligned. */
typedef float random_float16u __attribute__((ext_vector_type(16), aligned(4)));
#define RANDOM_STORE16(p, v) NERVA_CAT(RANDOM_STORE16_, OUT_DTYPE)(p, v)
#define RANDOM_STORE16_float(p, v) (*(__global random_float16u *)(p) = (v))
#define RANDOM_STORE16_half(p, v) vstore_half16_rte(v, 0, p)

/* Element of lane l of stream g in a flat output of n elements: stream 0
 * fills elements 0-3, later streams are shifted back so that the last one
 * ends at n (the first two overlap when n is not a multiple of four). */
#define RANDOM_SHIFT ((4 - VEC_SIZE_LEFTOVER) % 4)
#define RANDOM_ELEMENT(g, l) ((g) == 0 ? (long)(l) : 4 * (long)(g) + (l)-RANDOM_SHIFT)

/* The blocks of eight streams of this work item: [*first, *last). */
RANDOM_INLINE void random_item_blocks(long n, long *first, long *last) {
  const long blocks = ((n + 3) / 4 + 7) / 8;
  const long per = (blocks + (long)get_global_size(0) - 1) / (long)get_global_size(0);
  *first = (long)get_global_id(0) * per;
  *last = min(*first + per, blocks);
}
/* Whether the eight streams of block b fill 32 whole elements in order. */
#define RANDOM_BLOCK_WHOLE(b, n)                                               \
  (((b) > 0 || RANDOM_SHIFT == 0) && 32 * (b) + 32 - RANDOM_SHIFT <= (n))

/* Stores value v of lane l of stream g when its element lies in the output. */
#define RANDOM_STORE_LANE(p, g, l, v, n)                                       \
  {                                                                          \
    const long e = RANDOM_ELEMENT(g, l);                                     \
    if (e < (n)) VSTORE(OUT_DTYPE, 1, CONVERT(OUT_DTYPE, 1, v), (p) + e);    \
  }
/* The body of the CPU fill kernels over the flat output p of n elements: the
 * item's blocks of eight streams, a whole block as WHOLE(c0, c1, c2, c3, q)
 * (the four Philox words of the eight streams, 32 outputs from q), the others
 * stream by stream as STREAM(w0, w1, w2, w3, v0, v1, v2, v3), which declares
 * the stream's four float values. */
#define RANDOM_CPU_FILL(p, n, WHOLE, STREAM)                                   \
  {                                                                          \
    const long rcf_streams = ((n) + 3) / 4;                                  \
    long b, last;                                                            \
    random_item_blocks(n, &b, &last);                                        \
    for (; b + 1 < last && RANDOM_BLOCK_WHOLE(b + 1, n) && RANDOM_BLOCK_WHOLE(b, n); b += 2) { \
      ulong8 ca[4], cb[4];                                                   \
      philox16_first_blocks(philox_args_seed, 8 * b, philox_args_offset, ca, cb); \
      {                                                                      \
        __global OUT_DTYPE *q = (p) + RANDOM_ELEMENT(8 * b, 0);              \
        WHOLE(ca[0], ca[1], ca[2], ca[3], q)                                 \
      }                                                                      \
      {                                                                      \
        __global OUT_DTYPE *q = (p) + RANDOM_ELEMENT(8 * b + 8, 0);          \
        WHOLE(cb[0], cb[1], cb[2], cb[3], q)                                 \
      }                                                                      \
    }                                                                        \
    for (; b < last; ++b) {                                                  \
      if (RANDOM_BLOCK_WHOLE(b, n)) {                                        \
        ulong8 c0, c1, c2, c3;                                               \
        philox8_first_blocks(philox_args_seed, 8 * b, philox_args_offset, &c0, &c1, &c2, &c3); \
        __global OUT_DTYPE *q = (p) + RANDOM_ELEMENT(8 * b, 0);              \
        WHOLE(c0, c1, c2, c3, q)                                             \
        continue;                                                            \
      }                                                                      \
      for (long g = 8 * b; g < min(8 * b + 8, rcf_streams); ++g) {           \
        PHILOX_FIRST_BLOCK(philox_args_seed, g, philox_args_offset, w0, w1, w2, w3); \
        STREAM(w0, w1, w2, w3, v0, v1, v2, v3)                               \
        RANDOM_STORE_LANE(p, g, 0, v0, n);                                   \
        RANDOM_STORE_LANE(p, g, 1, v1, n);                                   \
        RANDOM_STORE_LANE(p, g, 2, v2, n);                                   \
        RANDOM_STORE_LANE(p, g, 3, v3, n);                                   \
      }                                                                      \
    }                                                                        \
  }
#endif

/* Box-Muller on words (x, y) into two scalars (sin(v) * s, cos(v) * s). */
#define BOX_MULLER(x, y, n0, n1)                                               \
  float n0, n1;                                                              \
  {                                                                          \
    const float bm_u = uniform_from_word(x);                                 \
    const float bm_v = word_to_float(y) * RAND_2POW32_INV_2PI + RAND_2POW32_INV_2PI / 2.0f; \
    const float bm_s = sqrt(-2.0f * random_log(bm_u));                       \
    float bm_sin, bm_cos;                                                    \
    random_sincos(bm_v, &bm_sin, &bm_cos);                                   \
    n0 = bm_sin * bm_s;                                                      \
    n1 = bm_cos * bm_s;                                                      \
  }

/* Stores the register value v (a float or long scalar) as element `lane` of p.
 * On CPU devices the lane is xor-ed with a zero the compiler cannot prove (a
 * global size is never 0): otherwise it fuses the four lanes of a work item
 * into one 4-wide vector and then cannot vectorise across work items. */
#ifdef NERVA_HOST_CPU_DEVICE
#define RANDOM_LANE_KEY (get_global_size(0) == 0 ? 1 : 0)
#else
#define RANDOM_LANE_KEY 0
#endif
#define RANDOM_STORE(p, lane, v)                                               \
  VSTORE(OUT_DTYPE, 1, CONVERT(OUT_DTYPE, 1, v), (p) + ((lane) ^ RANDOM_LANE_KEY))

/* First element of this work item's vector in a flat output of VEC_SIZE-wide
 * vectors (the first two overlap when there is a leftover). */
#if defined(VEC_SIZE) && defined(VEC_SIZE_LEFTOVER) && VEC_SIZE_LEFTOVER != 0
#define RANDOM_WI_OFFSET VEC_OFFSET(get_global_id(0), VEC_SIZE, VEC_SIZE_LEFTOVER)
#else
#define RANDOM_WI_OFFSET (get_global_id(0) * VEC_SIZE)
#endif

/* The first N lanes of a 4-lane vector. */
#define RANDOM_LANES(N, v) NERVA_CAT(RANDOM_LANES_, N)(v)
#define RANDOM_LANES_1(v) (v).x
#define RANDOM_LANES_2(v) (v).xy
#define RANDOM_LANES_3(v) (v).xyz
#define RANDOM_LANES_4(v) (v)

#endif /* NERVA_RANDOM_H */
