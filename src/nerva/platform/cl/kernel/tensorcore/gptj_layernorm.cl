/*
 * GPT-J's layer norm ahead of the tensor-unit products: per row of E
 * elements, (x - mean) * rstd * weight + bias with the mean and the variance
 * of one pass in float, rstd = 1 / sqrt(var + eps). One group per row; the
 * group's sums meet in the tree of "reduce.h".
 * Build definitions: DTYPE.
 */
// #include "common.h"
// #include "reduce.h"

#define GPTJ_LN_LOAD1(p) VLOAD(DTYPE, 1, p)
#define GPTJ_LN_STEP(d, s) \
  ln_sum[d] += ln_sum[s];  \
  ln_sq[d] += ln_sq[s];

inline void gptj_layernorm_row(__global const DTYPE* x, __global const DTYPE* weight,
                               __global const DTYPE* bias, __global DTYPE* out, long row, int E,
                               float eps, __local float* ln_sum, __local float* ln_sq) {
  const int lid = get_local_id(0);
  __global const DTYPE* xr = x + row * E;
  float s = 0.0f, q = 0.0f;
  for (int i = lid; i < E; i += BLOCK_SIZE) {
    const float v = GPTJ_LN_LOAD1(xr + i);
    s += v;
    q += v * v;
  }
  ln_sum[lid] = s;
  ln_sq[lid] = q;
  GROUP_TREE_REDUCE(lid, GPTJ_LN_STEP)
  const float mean = ln_sum[0] / E;
  const float rstd = rsqrt(fmax(ln_sq[0] / E - mean * mean, 0.0f) + eps);
  for (int i = lid; i < E; i += BLOCK_SIZE) {
    const float v = (GPTJ_LN_LOAD1(xr + i) - mean) * rstd;
    VSTORE(DTYPE, 1, v * GPTJ_LN_LOAD1(weight + i) + GPTJ_LN_LOAD1(bias + i), out + row * E + i);
  }
  barrier(CLK_LOCAL_MEM_FENCE);
}

/* Global (BLOCK_SIZE, rows). */
__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void gptj_layernorm_tensorcore(
    __global const DTYPE* x, __global const DTYPE* weight, __global const DTYPE* bias,
    __global DTYPE* out, int E, float eps) {
  __local float ln_sum[BLOCK_SIZE], ln_sq[BLOCK_SIZE];
  gptj_layernorm_row(x, weight, bias, out, get_group_id(1), E, eps, ln_sum, ln_sq);
}
