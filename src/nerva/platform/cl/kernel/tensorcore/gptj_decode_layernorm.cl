/*
 * GPT-J's decode-step layer norm: the rows of "tensorcore/gptj_layernorm.cl"
 * (built ahead of this text), one token per sequence; a group walks several
 * sequences, as a decode batch has few rows.
 */
// #include "tensorcore/gptj_layernorm.cl" (gptj_layernorm_row)

/* Global (BLOCK_SIZE, groups): group g takes rows g, g + groups, ... below `rows`. */
__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void
gptj_decode_layernorm_tensorcore(__global const DTYPE* x, __global const DTYPE* weight,
                                 __global const DTYPE* bias, __global DTYPE* out, int rows, int E,
                                 float eps) {
  __local float ln_sum[BLOCK_SIZE], ln_sq[BLOCK_SIZE];
  for (int row = get_group_id(1); row < rows; row += get_num_groups(1)) {
    gptj_layernorm_row(x, weight, bias, out, row, E, eps, ln_sum, ln_sq);
  }
}
