/*
 * Softmax along one axis, computed in float whatever the storage types.
 * Definitions: DTYPE (input), DTYPE_OUT, VEC_SIZE, VEC_SIZE_LEFTOVER,
 * BLOCK_SIZE; USE_SHARE_MEMORY (softmax_x keeps the row in a local scratch
 * array, its first argument); IS_2D_TENSOR (softmax over a 2-D view).
 *
 * softmax_x: one group per row of the innermost axis, three passes: maximum
 * (each item starting from the row's first vector), sum of exp(x - max)
 * (item 0 adds the leftover elements, which start the row), then the
 * normalised write. softmax_x_online: rows of whole vectors only; one read
 * pass keeps per lane a running maximum m and a sum s rescaled as m grows,
 * s <- s * exp(m_old - m_new) + exp(x - m_new); the lane sums are rescaled to
 * the group maximum and summed, and a second pass writes. softmax: any other
 * axis; one item per vector of inner columns (and per outer index, global id
 * 2) walks the axis three times. softmax_x_row (CPU devices): one item per
 * row and no barriers; it walks the row in ROW_VEC-wide vectors after the
 * leading `length % ROW_VEC` elements, which it takes one by one: maximum,
 * sum of exponentials, then the write, while the row stays in cache.
 *
 * A program placed ahead of this text may define SOFTMAX_PREFIX (kernel
 * name stem), SOFTMAX_SCALE(sum) (the row constant c), SOFTMAX_FROM_X(x, m, c)
 * (the result from an input x and the row maximum m) and
 * SOFTMAX_KEEP_INPUT (the scratch keeps x instead of the exponentials);
 * log-softmax does.
 */
// #include "common.h"
// #include "math.h"
// #include "reduce.h"

#ifndef SOFTMAX_PREFIX
#define SOFTMAX_PREFIX softmax
#define SOFTMAX_SCALE(sum) (1.0f / (sum))
#define SOFTMAX_FROM_X(x, m, c) (NERVA_EXP((x) - (m)) * (c))
#endif

#define SM_VEC NERVA_VEC(float, VEC_SIZE)
#define SM_LOAD(p) CONVERT(float, VEC_SIZE, VLOAD(DTYPE, VEC_SIZE, p))
#define SM_LOAD1(p) CONVERT(float, 1, VLOAD(DTYPE, 1, p))
#define SM_STORE(v, p) VSTORE(DTYPE_OUT, VEC_SIZE, CONVERT(DTYPE_OUT, VEC_SIZE, v), p)
#define SM_STORE1(v, p) VSTORE(DTYPE_OUT, 1, CONVERT(DTYPE_OUT, 1, v), p)
#define SM_MAX_STEP(d, s) sm_red[d] = fmax(sm_red[d], sm_red[s]);
#define SM_SUM_STEP(d, s) sm_red[d] = sm_red[d] + sm_red[s];
#define SM_FMAX(a, b) fmax(a, b)

/* Group maximum / sum of each item's vector v, as a scalar for every item. */
#define SM_GROUP_MAX(v, out)                                                   \
  sm_red[lid] = (v);                                                         \
  GROUP_TREE_REDUCE(lid, SM_MAX_STEP)                                        \
  const float out = LANE_FOLD(VEC_SIZE, sm_red[0], SM_FMAX);                 \
  barrier(CLK_LOCAL_MEM_FENCE);
#define SM_GROUP_SUM(v, out)                                                   \
  sm_red[lid] = (v);                                                         \
  GROUP_TREE_REDUCE(lid, SM_SUM_STEP)                                        \
  const float out = LANE_SUM(VEC_SIZE, sm_red[0]);                           \
  barrier(CLK_LOCAL_MEM_FENCE);

#ifdef USE_SHARE_MEMORY
#define SM_SCRATCH_PARAM __local float *scratch,
#define SM_KEEP(i, v) NERVA_STOREN(VEC_SIZE, v, scratch + (i) * VEC_SIZE)
#define SM_INPUT(i) NERVA_LOADN(VEC_SIZE, scratch + (i) * VEC_SIZE)
#else
#define SM_SCRATCH_PARAM
#define SM_KEEP(i, v)
#define SM_INPUT(i) SM_LOAD(p + VEC_SIZE_LEFTOVER + (i) * VEC_SIZE)
#endif
#if defined(USE_SHARE_MEMORY) && !defined(SOFTMAX_KEEP_INPUT)
/* The exponentials replace the row in the scratch array. */
#define SM_KEEP_EXP(i, e) NERVA_STOREN(VEC_SIZE, e, scratch + (i) * VEC_SIZE)
#define SM_RESULT(i) (SM_INPUT(i) * c)
#else
#define SM_KEEP_EXP(i, e)
#define SM_RESULT(i) SOFTMAX_FROM_X(SM_INPUT(i), row_max, c)
#endif

__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void NERVA_CAT(SOFTMAX_PREFIX, _x)(
    SM_SCRATCH_PARAM DECL_TENSOR3D(src), DECL_TENSOR3D(dst), uint mult_of_vector_size) {
  const int lid = get_local_id(0);
  __global const DTYPE* p = TENSOR3D_PTR(src, DTYPE, 0, get_global_id(1), get_global_id(2));
  __global DTYPE_OUT* q = TENSOR3D_PTR(dst, DTYPE_OUT, 0, get_global_id(1), get_global_id(2));
  __local SM_VEC sm_red[BLOCK_SIZE];

  SM_VEC m = SM_LOAD(p);
  FOR_SHARE(i, lid, mult_of_vector_size, BLOCK_SIZE) {
    const SM_VEC x = SM_LOAD(p + VEC_SIZE_LEFTOVER + i * VEC_SIZE);
    SM_KEEP(i, x);
    m = fmax(m, x);
  }
  SM_GROUP_MAX(m, row_max)

  SM_VEC s = 0.0f;
  FOR_SHARE(i, lid, mult_of_vector_size, BLOCK_SIZE) {
    const SM_VEC e = NERVA_EXP(SM_INPUT(i) - row_max);
    SM_KEEP_EXP(i, e);
    s += e;
  }
#if VEC_SIZE_LEFTOVER > 0
  if (lid == 0) {
    for (int k = 0; k < VEC_SIZE_LEFTOVER; ++k) s.x += NERVA_EXP(SM_LOAD1(p + k) - row_max);
  }
#endif
  SM_GROUP_SUM(s, sum)
  const float c = SOFTMAX_SCALE(sum);

  FOR_SHARE(i, lid, mult_of_vector_size, BLOCK_SIZE) {
    SM_STORE(SM_RESULT(i), q + VEC_SIZE_LEFTOVER + i * VEC_SIZE);
  }
#if VEC_SIZE_LEFTOVER > 0
  if (lid == 0) {
    for (int k = 0; k < VEC_SIZE_LEFTOVER; ++k) {
      SM_STORE1(SOFTMAX_FROM_X(SM_LOAD1(p + k), row_max, c), q + k);
    }
  }
#endif
}

#if VEC_SIZE_LEFTOVER == 0
__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void NERVA_CAT(
    SOFTMAX_PREFIX, _x_online)(SM_SCRATCH_PARAM DECL_TENSOR3D(src), DECL_TENSOR3D(dst),
                               uint mult_of_vector_size) {
  const int lid = get_local_id(0);
  __global const DTYPE* p = TENSOR3D_PTR(src, DTYPE, 0, get_global_id(1), get_global_id(2));
  __global DTYPE_OUT* q = TENSOR3D_PTR(dst, DTYPE_OUT, 0, get_global_id(1), get_global_id(2));
  __local SM_VEC sm_red[BLOCK_SIZE];

  SM_VEC m = -FLT_MAX;
  SM_VEC s = 0.0f;
#ifdef NERVA_HOST_CPU_DEVICE
  /* An item's share is one contiguous chunk, read once from memory: its
   * maximum first, then the sum from the cache, which is the running update
   * with a single step (one exponential per element instead of two). */
  FOR_SHARE(i, lid, mult_of_vector_size, BLOCK_SIZE) m = fmax(m, SM_LOAD(p + i * VEC_SIZE));
  FOR_SHARE(i, lid, mult_of_vector_size, BLOCK_SIZE) {
    s += NERVA_EXP(SM_LOAD(p + i * VEC_SIZE) - m);
  }
#else
  FOR_SHARE(i, lid, mult_of_vector_size, BLOCK_SIZE) {
    const SM_VEC x = SM_LOAD(p + i * VEC_SIZE);
    const SM_VEC m_new = fmax(m, x);
    s = s * NERVA_EXP(m - m_new) + NERVA_EXP(x - m_new);
    m = m_new;
  }
#endif
  SM_GROUP_MAX(m, row_max)
  SM_GROUP_SUM(s * NERVA_EXP(m - row_max), sum)
  const float c = SOFTMAX_SCALE(sum);
  FOR_SHARE(i, lid, mult_of_vector_size, BLOCK_SIZE) {
    SM_STORE(SOFTMAX_FROM_X(SM_LOAD(p + i * VEC_SIZE), row_max, c), q + i * VEC_SIZE);
  }
}
#endif

#ifdef NERVA_HOST_CPU_DEVICE
/* A float softmax output keeps the exponentials of the second pass, which the
 * third scales in place (a load instead of a second exponential). */
#define SM_OUT_FLOAT_float 1
#if !defined(SOFTMAX_KEEP_INPUT) && NERVA_CAT(SM_OUT_FLOAT_, DTYPE_OUT)
#define SM_ROW_KEEPS_EXP 1
#else
#define SM_ROW_KEEPS_EXP 0
#endif
/* The row form's maximum skips NaN lanes (a NaN still reaches every result
 * through the sum), so x - max is never positive: the cheaper exponential. */
#define SM_ROW_EXP(d) nerva_exp2_nonpositive((d) * NERVA_LOG2E)
#define SM_ROW_LOAD(p) CONVERT(float, ROW_VEC, VLOAD(DTYPE, ROW_VEC, p))
#define SM_ROW_STORE(v, p) VSTORE(DTYPE_OUT, ROW_VEC, CONVERT(DTYPE_OUT, ROW_VEC, v), p)
__kernel void NERVA_CAT(SOFTMAX_PREFIX, _x_row)(DECL_TENSOR2D(src), DECL_TENSOR2D(dst),
                                                int length) {
  __global const DTYPE* p = TENSOR2D_PTR(src, DTYPE, 0, get_global_id(0));
  __global DTYPE_OUT* q = TENSOR2D_PTR(dst, DTYPE_OUT, 0, get_global_id(0));
  const int lead = length % ROW_VEC;
  __global const DTYPE* pv = p + lead;
  __global DTYPE_OUT* qv = q + lead;
  const int vectors = length / ROW_VEC;
  NERVA_VEC(float, ROW_VEC) mv = -FLT_MAX;
  for (int i = 0; i < vectors; ++i) {
    const NERVA_VEC(float, ROW_VEC) v = SM_ROW_LOAD(pv + i * ROW_VEC);
    mv = select(mv, v, v > mv);
  }
  float row_max = LANE_FOLD(ROW_VEC, mv, SM_FMAX);
  for (int k = 0; k < lead; ++k) row_max = fmax(row_max, SM_LOAD1(p + k));
  NERVA_VEC(float, ROW_VEC) sv = 0.0f;
#if SM_ROW_KEEPS_EXP
  for (int i = 0; i < vectors; ++i) {
    const NERVA_VEC(float, ROW_VEC) e = SM_ROW_EXP(SM_ROW_LOAD(pv + i * ROW_VEC) - row_max);
    vstore16(e, i, qv);
    sv += e;
  }
#else
  for (int i = 0; i < vectors; ++i) sv += SM_ROW_EXP(SM_ROW_LOAD(pv + i * ROW_VEC) - row_max);
#endif
  float sum = LANE_SUM(ROW_VEC, sv);
  for (int k = 0; k < lead; ++k) sum += SM_ROW_EXP(SM_LOAD1(p + k) - row_max);
  const float c = SOFTMAX_SCALE(sum);
  for (int i = 0; i < vectors; ++i) {
#if SM_ROW_KEEPS_EXP
    vstore16(vload16(i, qv) * c, i, qv);
#else
    SM_ROW_STORE(SOFTMAX_FROM_X(SM_ROW_LOAD(pv + i * ROW_VEC), row_max, c), qv + i * ROW_VEC);
#endif
  }
  for (int k = 0; k < lead; ++k) SM_STORE1(SOFTMAX_FROM_X(SM_LOAD1(p + k), row_max, c), q + k);
}
#endif

/* Any other axis: item (x[, z]) walks the axis at inner column x. */
#if VEC_SIZE_LEFTOVER == 0
#define SM_COLUMN() ((int)get_global_id(0) * VEC_SIZE)
#else
#define SM_COLUMN() VEC_OFFSET(get_global_id(0), VEC_SIZE, VEC_SIZE_LEFTOVER)
#endif
#ifdef IS_2D_TENSOR
#define SM_DECL DECL_TENSOR2D
#define SM_AT(t, T, r) TENSOR2D_PTR(t, T, col, r)
#else
#define SM_DECL DECL_TENSOR3D
#define SM_AT(t, T, r) TENSOR3D_PTR(t, T, col, r, get_global_id(2))
#endif

__kernel void SOFTMAX_PREFIX(SM_DECL(src), SM_DECL(dst), int axis_size) {
  const int col = SM_COLUMN();
  SM_VEC m = SM_LOAD(SM_AT(src, DTYPE, 0));
  for (int r = 1; r < axis_size; ++r) m = fmax(m, SM_LOAD(SM_AT(src, DTYPE, r)));
  SM_VEC s = 0.0f;
  for (int r = 0; r < axis_size; ++r) s += NERVA_EXP(SM_LOAD(SM_AT(src, DTYPE, r)) - m);
  const SM_VEC c = SOFTMAX_SCALE(s);
  for (int r = 0; r < axis_size; ++r) {
    SM_STORE(SOFTMAX_FROM_X(SM_LOAD(SM_AT(src, DTYPE, r)), m, c), SM_AT(dst, DTYPE_OUT, r));
  }
}
