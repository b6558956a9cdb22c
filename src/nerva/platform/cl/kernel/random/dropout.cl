/*
 * DropoutTrain: mask = (u > PROBABILITY) per lane of the first rand_uniform4
 * draw of the work item's stream, out = in * mask * (1 / (1 - PROBABILITY))
 * (0 for PROBABILITY 1), the mask stored as one byte per element.
 * Build definitions: VEC_SIZE (must be 4), VEC_SIZE_LEFTOVER, PROBABILITY,
 * DTYPE (input), OUT_DTYPE.
 */
// #include "common.h"
// #include "random.h"

#if VEC_SIZE != 4
#error: Only Support VEC_SIZE == 4
#endif

#define DROP_P ((float)(PROBABILITY))
#define DROP_SCALE (DROP_P < 1.0f ? 1.0f / (1.0f - DROP_P) : 0.0f)

#define DROPOUT_LANE(lane, w)                                                  \
  {                                                                          \
    const float keep = uniform_from_word(w) > DROP_P ? 1.0f : 0.0f;          \
    const float x = CONVERT(float, 1, VLOAD(DTYPE, 1, p + (lane)));          \
    RANDOM_STORE(q, lane, x * keep * DROP_SCALE);                            \
    m[lane] = (char)keep;                                                    \
  }

__kernel void dropout_train_generic(DECL_TENSOR1D(in), DECL_TENSOR1D(out), DECL_TENSOR1D(mask),
                                    DECL_PHILOX_STATE) {
  PHILOX_FIRST_BLOCK(philox_args_seed, get_global_id(0), philox_args_offset, w0, w1, w2, w3);
  const size_t offset = RANDOM_WI_OFFSET;
  __global const DTYPE *p = (__global const DTYPE *)TENSOR_BASE(in) + offset;
  __global OUT_DTYPE *q = (__global OUT_DTYPE *)TENSOR_BASE(out) + offset;
  __global char *m = (__global char *)TENSOR_BASE(mask) + offset;
  DROPOUT_LANE(0, w0)
  DROPOUT_LANE(1, w1)
  DROPOUT_LANE(2, w2)
  DROPOUT_LANE(3, w3)
}
