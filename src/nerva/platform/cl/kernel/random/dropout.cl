/*
 * DropoutTrain: mask = (u > PROBABILITY) per lane of one rand_uniform4 draw,
 * out = in * mask * (1 / (1 - PROBABILITY)) (0 for PROBABILITY 1), the mask
 * stored as one byte per element.
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

__kernel void dropout_train_generic(DECL_TENSOR1D(in), DECL_TENSOR1D(out), DECL_TENSOR1D(mask),
                                    DECL_PHILOX_STATE) {
  philox4x32_state_t state;
  rand_init(philox_args_seed, get_global_id(0), philox_args_offset, &state);
  const float4 u = rand_uniform4(&state);
  const size_t offset = RANDOM_WI_OFFSET;
  const float4 keep = select((float4)(0.0f), (float4)(1.0f), u > DROP_P);
  const float4 x = CONVERT(float, 4, VLOAD(DTYPE, 4, (__global DTYPE *)TENSOR_BASE(in) + offset));
  VSTORE(OUT_DTYPE, 4, CONVERT(OUT_DTYPE, 4, x * keep * DROP_SCALE),
         (__global OUT_DTYPE *)TENSOR_BASE(out) + offset);
  vstore4(convert_char4(keep), 0, (__global char *)TENSOR_BASE(mask) + offset);
}
