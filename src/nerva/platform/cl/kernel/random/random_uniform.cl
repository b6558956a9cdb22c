/*
 * RandUniform: uniform floats in (0, 1), or low + u * step with UPDATE_RANGE,
 * four per work item: the first rand4 draw of the work item's Philox stream.
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
