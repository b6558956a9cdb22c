/*
 * Group tree reduction and lane folds shared by the reduce, softmax, argmax,
 * norm and loss programs.
 *
 * A group of BLOCK_SIZE work items (a power of two) folds a run: each item
 * folds its strided share into a private accumulator, stores it in a local
 * array of BLOCK_SIZE entries, and GROUP_TREE_REDUCE halves the array until
 * entry 0 holds the group's result. The vector lanes of that entry are then
 * folded into one scalar with the LANE_* macros.
 */
#ifndef NERVA_REDUCE_H
#define NERVA_REDUCE_H

#ifndef BLOCK_SIZE
#define BLOCK_SIZE 64
#endif

/* 1 when T is a floating accumulation type (float, double); 0 otherwise. */
#define NERVA_IS_FLOAT(T) NERVA_CAT(NERVA_IS_FLOAT_, T)
#define NERVA_IS_FLOAT_float 1
#define NERVA_IS_FLOAT_double 1

/* The share of `items` work items in `count` units, for item `id`: on
 * devices whose compiler targets the host CPU, where a group's items run one
 * after the other on one thread, a contiguous chunk (sequential reads);
 * elsewhere every items-th unit from id (neighbouring items read neighbouring
 * units together). The fold is the same either way, in another order. */
#ifdef NERVA_HOST_CPU_DEVICE
#define FOR_SHARE(i, id, count, items)                                        \
  for (int i = (int)(id) * (((int)(count) + (int)(items) - 1) / (int)(items)),  \
           i##_end = min((int)(count), i + ((int)(count) + (int)(items) - 1) / (int)(items)); \
       i < i##_end; ++i)
#else
#define FOR_SHARE(i, id, count, items) for (int i = (int)(id); i < (int)(count); i += (int)(items))
#endif

/* Width of the vectors that one work item walks a row with on CPU devices
 * (a whole AVX-512 register of floats): there one item per row, without
 * barriers, beats a group tree. */
#define ROW_VEC 16

/* Halving tree over local arrays of BLOCK_SIZE entries. STEP(dst, src) merges
 * entry src into entry dst of every array the caller keeps. Starts with a
 * barrier (so the caller's stores are visible) and ends with one, so every
 * item may then read entry 0. All items of the group must reach it. */
#define GROUP_TREE_REDUCE(lid, STEP)                                          \
  barrier(CLK_LOCAL_MEM_FENCE);                                              \
  for (int nerva_stride = BLOCK_SIZE / 2; nerva_stride > 0; nerva_stride >>= 1) { \
    if ((lid) < nerva_stride) {                                              \
      STEP((lid), (lid) + nerva_stride);                                     \
    }                                                                        \
    barrier(CLK_LOCAL_MEM_FENCE);                                            \
  }

/* Maximum and minimum that propagate NaN (a NaN operand wins), lane-wise on
 * float scalars or vectors. */
#define NERVA_NAN_MAX(a, b) select((b), (a), isgreater((a), (b)) | isnan(a))
#define NERVA_NAN_MIN(a, b) select((b), (a), isless((a), (b)) | isnan(a))

/* Sum of the N lanes of a float vector (a dot product with ones). */
#define LANE_SUM(N, v) NERVA_CAT(NERVA_LANE_SUM_, N)(v)
#define NERVA_LANE_SUM_1(v) (v)
#define NERVA_LANE_SUM_2(v) dot((v), (float2)(1.0f))
#define NERVA_LANE_SUM_3(v) dot((v), (float3)(1.0f))
#define NERVA_LANE_SUM_4(v) dot((v), (float4)(1.0f))
#define NERVA_LANE_SUM_8(v) NERVA_LANE_SUM_4((v).lo + (v).hi)
#define NERVA_LANE_SUM_16(v) NERVA_LANE_SUM_8((v).lo + (v).hi)

/* Pairwise fold of N lanes with F, which must accept 2-lane vectors: for four
 * lanes .xy against .zw first, then .x against .y. */
#define LANE_FOLD(N, v, F) NERVA_CAT(NERVA_LANE_FOLD_, N)(v, F)
#define NERVA_LANE_FOLD_1(v, F) (v)
#define NERVA_LANE_FOLD_2(v, F) F((v).x, (v).y)
#define NERVA_LANE_FOLD_3(v, F) F(F((v).x, (v).y), (v).z)
#define NERVA_LANE_FOLD_4(v, F) NERVA_LANE_FOLD_2(F((v).xy, (v).zw), F)
#define NERVA_LANE_FOLD_8(v, F) NERVA_LANE_FOLD_4(F((v).lo, (v).hi), F)
#define NERVA_LANE_FOLD_16(v, F) NERVA_LANE_FOLD_8(F((v).lo, (v).hi), F)

/* 1 or 0 per lane for a lane-wise condition c of N lanes (vector comparisons
 * give -1 for true, scalar ones 1), as an int vector. */
#define NERVA_TRUTH(N, c) (NERVA_CAT(convert_, NERVA_VEC(int, N))(c) & 1)

/* The p-th power of |x| summed by the p-norms, for any p > 0 (p given at run
 * time): squares and absolute values for 2 and 1, the power otherwise. The
 * infinity norm takes max |x| instead (NERVA_NORM_FOLD). */
inline float nerva_norm_term(float x, float p) {
  const float a = fabs(x);
  return p == 2.0f ? a * a : (p == 1.0f ? a : pow(a, p));
}
inline float nerva_norm_fold(float acc, float term, float p) {
  return isinf(p) ? fmax(acc, term) : acc + term;
}
/* The norm from the folded terms. */
inline float nerva_norm_finish(float acc, float p) {
  return isinf(p) || p == 1.0f ? acc : (p == 2.0f ? sqrt(acc) : pow(acc, 1.0f / p));
}
/* The term of x: |x| for the infinity norm, else |x|^p. */
inline float nerva_norm_value(float x, float p) {
  return isinf(p) ? fabs(x) : nerva_norm_term(x, p);
}

#endif /* NERVA_REDUCE_H */
