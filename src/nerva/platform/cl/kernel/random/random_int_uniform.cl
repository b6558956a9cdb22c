/*
 * RandIntUniform: VEC_SIZE random words per work item widened to long; with
 * UPDATE_RANGE the value is word % step + low. Width 4 takes one rand4 draw,
 * widths 1-3 that many successive words.
 * Build definitions: VEC_SIZE (1 to 4), VEC_SIZE_LEFTOVER, OUT_DTYPE.
 */
// #include "common.h"
// #include "random.h"

#if VEC_SIZE > 4
#error: Only Support VEC_SIZE <= 4
#endif

#define LONGV NERVA_VEC(long, VEC_SIZE)

__kernel void random_int_uniform_philox(DECL_TENSOR1D(out), DECL_PHILOX_STATE
#ifdef UPDATE_RANGE
                                        , long low, long step
#endif
) {
#if VEC_SIZE == 4
  PHILOX_FIRST_BLOCK(philox_args_seed, get_global_id(0), philox_args_offset, w0, w1, w2, w3);
  LONGV v = (long4)((long)w0, (long)w1, (long)w2, (long)w3);
#else
  philox4x32_state_t state;
  rand_init(philox_args_seed, get_global_id(0), philox_args_offset, &state);
#if VEC_SIZE == 3
  const long a = rand(&state), b = rand(&state), c = rand(&state);
  LONGV v = (long3)(a, b, c);
#elif VEC_SIZE == 2
  const long a = rand(&state), b = rand(&state);
  LONGV v = (long2)(a, b);
#else
  LONGV v = (long)rand(&state);
#endif
#endif
#ifdef UPDATE_RANGE
  v = v % step + low;
#endif
  __global OUT_DTYPE *p = (__global OUT_DTYPE *)TENSOR_BASE(out) + RANDOM_WI_OFFSET;
  VSTORE(OUT_DTYPE, VEC_SIZE, CONVERT(OUT_DTYPE, VEC_SIZE, v), p);
}
