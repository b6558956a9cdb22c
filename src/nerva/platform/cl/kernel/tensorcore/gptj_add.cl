/*
 * GPT-J's residual after the tensor-unit products: out = x + attn_out +
 * mlp_out, element-wise in float over n elements (out may be any of the inputs).
 * Build definitions: DTYPE.
 */
// #include "common.h"

inline void gptj_add3(__global const DTYPE* x, __global const DTYPE* a, __global const DTYPE* m,
                      __global DTYPE* out, long i) {
  VSTORE(DTYPE, 1, VLOAD(DTYPE, 1, x + i) + VLOAD(DTYPE, 1, a + i) + VLOAD(DTYPE, 1, m + i),
         out + i);
}

/* One item per element. */
__kernel void gptj_add_tensorcore(__global const DTYPE* x, __global const DTYPE* a,
                                  __global const DTYPE* m, __global DTYPE* out, long n) {
  const long i = get_global_id(0);
  if (i < n) gptj_add3(x, a, m, out, i);
}
