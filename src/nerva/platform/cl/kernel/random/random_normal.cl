/*
 * RandNormal: four normal values per work item, two Box-Muller pairs from the
 * first rand4 draw of its Philox stream, scaled to n * stddev + mean with
 * UPDATE_ARG. CPU devices run random_normal_philox_cpu: the same numbers, one
 * work item filling whole runs of streams eight at a time.
 * Build definitions: VEC_SIZE (must be 4), VEC_SIZE_LEFTOVER, OUT_DTYPE.
 */
// #include "common.h"
// #include "random.h"

#if VEC_SIZE != 4
#error: Only Support VEC_SIZE == 4
#endif

#ifdef UPDATE_ARG
#define SCALED(n) ((n) * stddev + mean)
#else
#define SCALED(n) (n)
#endif

__kernel void random_normal_philox(DECL_TENSOR1D(out), DECL_PHILOX_STATE
#ifdef UPDATE_ARG
                                   , float mean, float stddev
#endif
) {
  PHILOX_FIRST_BLOCK(philox_args_seed, get_global_id(0), philox_args_offset, w0, w1, w2, w3);
  BOX_MULLER(w0, w1, n0, n1);
  BOX_MULLER(w2, w3, n2, n3);
  __global OUT_DTYPE *p = (__global OUT_DTYPE *)TENSOR_BASE(out) + RANDOM_WI_OFFSET;
  RANDOM_STORE(p, 0, SCALED(n0));
  RANDOM_STORE(p, 1, SCALED(n1));
  RANDOM_STORE(p, 2, SCALED(n2));
  RANDOM_STORE(p, 3, SCALED(n3));
}

#ifdef NERVA_HOST_CPU_DEVICE
/* Lanes 0-7: the (w0, w1) pairs of the eight streams, lanes 8-15: (w2, w3). */
#define NORMAL_WHOLE(c0, c1, c2, c3, q)                                        \
  float16 sn, cs;                                                            \
  box_muller16(philox8_words(c0, c2), philox8_words(c1, c3), &sn, &cs);      \
  sn = SCALED(sn);                                                           \
  cs = SCALED(cs);                                                           \
  RANDOM_STORE16(q, shuffle2(sn, cs, (uint16)(0, 16, 8, 24, 1, 17, 9, 25, 2, 18, 10, 26, 3, 19,  \
                                              11, 27)));                     \
  RANDOM_STORE16((q) + 16, shuffle2(sn, cs, (uint16)(4, 20, 12, 28, 5, 21, 13, 29, 6, 22, 14, \
                                                     30, 7, 23, 15, 31)));
#define NORMAL_STREAM(w0, w1, w2, w3, v0, v1, v2, v3)                          \
  BOX_MULLER(w0, w1, n0, n1);                                                \
  BOX_MULLER(w2, w3, n2, n3);                                                \
  const float v0 = SCALED(n0), v1 = SCALED(n1), v2 = SCALED(n2), v3 = SCALED(n3);

/* Takes n, the output length, after the other arguments. */
__kernel void random_normal_philox_cpu(DECL_TENSOR1D(out), DECL_PHILOX_STATE,
#ifdef UPDATE_ARG
                                       float mean, float stddev,
#endif
                                       long n) {
  RANDOM_CPU_FILL((__global OUT_DTYPE *)TENSOR_BASE(out), n, NORMAL_WHOLE, NORMAL_STREAM)
}
#endif
