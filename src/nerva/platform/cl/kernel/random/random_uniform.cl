/*
 * RandUniform: uniform floats in (0, 1), or low + u * step with UPDATE_RANGE,
 * four per work item: the first rand4 draw of the work item's Philox stream.
 * CPU devices run random_uniform_philox_cpu: the same numbers, one work item
 * filling whole runs of streams eight at a time.
 * Build definitions: VEC_SIZE (must be 4), VEC_SIZE_LEFTOVER, OUT_DTYPE.
 */
// #include "common.h"
// #include "random.h"

#if VEC_SIZE != 4
#error: Only Support VEC_SIZE == 4
#endif

#ifdef UPDATE_RANGE
#define UNIFORM(w) (uniform_from_word(w) * step + low)
#else
#define UNIFORM(w) uniform_from_word(w)
#endif

__kernel void random_uniform_philox(DECL_TENSOR1D(out), DECL_PHILOX_STATE
#ifdef UPDATE_RANGE
                                    , float low, float step
#endif
) {
  PHILOX_FIRST_BLOCK(philox_args_seed, get_global_id(0), philox_args_offset, w0, w1, w2, w3);
  __global OUT_DTYPE *p = (__global OUT_DTYPE *)TENSOR_BASE(out) + RANDOM_WI_OFFSET;
  RANDOM_STORE(p, 0, UNIFORM(w0));
  RANDOM_STORE(p, 1, UNIFORM(w1));
  RANDOM_STORE(p, 2, UNIFORM(w2));
  RANDOM_STORE(p, 3, UNIFORM(w3));
}

#ifdef NERVA_HOST_CPU_DEVICE
#ifdef UPDATE_RANGE
#define UNIFORM16(w) (uniform16_from_words(w) * step + low)
#else
#define UNIFORM16(w) uniform16_from_words(w)
#endif

#define UNIFORM_WHOLE(c0, c1, c2, c3, q)                                       \
  uint16 lo, hi;                                                             \
  philox8_in_order(c0, c1, c2, c3, &lo, &hi);                                \
  RANDOM_STORE16(q, UNIFORM16(lo));                                          \
  RANDOM_STORE16((q) + 16, UNIFORM16(hi));
#define UNIFORM_STREAM(w0, w1, w2, w3, v0, v1, v2, v3)                         \
  const float v0 = UNIFORM(w0), v1 = UNIFORM(w1), v2 = UNIFORM(w2), v3 = UNIFORM(w3);

/* Takes n, the output length, after the other arguments. */
__kernel void random_uniform_philox_cpu(DECL_TENSOR1D(out), DECL_PHILOX_STATE,
#ifdef UPDATE_RANGE
                                        float low, float step,
#endif
                                        long n) {
  RANDOM_CPU_FILL((__global OUT_DTYPE *)TENSOR_BASE(out), n, UNIFORM_WHOLE, UNIFORM_STREAM)
}
#endif
