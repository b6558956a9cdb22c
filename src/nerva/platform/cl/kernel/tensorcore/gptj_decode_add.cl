/*
 * GPT-J's decode-step residual: out = x + attn_out + mlp_out over a few rows,
 * as "tensorcore/gptj_add.cl" (built ahead of this text); each item walks
 * the elements at its id plus multiples of the global size.
 */
// #include "tensorcore/gptj_add.cl" (gptj_add3)

__kernel void gptj_decode_add_tensorcore(__global const DTYPE* x, __global const DTYPE* a,
                                         __global const DTYPE* m, __global DTYPE* out, long n) {
  for (long i = get_global_id(0); i < n; i += get_global_size(0)) gptj_add3(x, a, m, out, i);
}
