/*
 * Row statistics shared by the normalisation programs (layer, group, RMS,
 * instance and batch normalisation, forward and backward).
 *
 * A run of n elements is read as VEC_SIZE_LEFTOVER leading elements followed
 * by whole VEC_SIZE-wide vectors. A group of BLOCK_SIZE items folds a run:
 * each item adds its share of the whole vectors to float vector
 * accumulators, item 0 adds the leading elements to lane x, and
 * NORM_GROUP_SUM2 tree-sums two accumulators over the group.
 * Needs "common.h" and "reduce.h" ahead of it.
 */
#ifndef NERVA_NORM_H
#define NERVA_NORM_H

#define NORM_VEC NERVA_VEC(float, VEC_SIZE)
#define NORM_LOAD(T, p) CONVERT(float, VEC_SIZE, VLOAD(T, VEC_SIZE, p))
#define NORM_LOAD1(T, p) CONVERT(float, 1, VLOAD(T, 1, p))
#define NORM_STORE(T, v, p) VSTORE(T, VEC_SIZE, CONVERT(T, VEC_SIZE, v), p)
#define NORM_STORE1(T, v, p) VSTORE(T, 1, CONVERT(T, 1, v), p)

/* Local vector i of a float row cache. */
#define NORM_CACHE_LOAD(cache, i) NERVA_LOADN(VEC_SIZE, (cache) + (i) * VEC_SIZE)
#define NORM_CACHE_STORE(cache, i, v) NERVA_STOREN(VEC_SIZE, v, (cache) + (i) * VEC_SIZE)

/* Declares the two local arrays NORM_GROUP_SUM2 works on. */
#if BLOCK_SIZE == 1
#define NORM_DECL_LOCALS
#else
#define NORM_DECL_LOCALS                                                       \
  __local NORM_VEC norm_a[BLOCK_SIZE];                                       \
  __local NORM_VEC norm_b[BLOCK_SIZE];
#endif

#define NORM_SUM2_STEP(d, s)                                                   \
  norm_a[d] += norm_a[s];                                                    \
  norm_b[d] += norm_b[s];

/* The group sums of the items' vectors a and b, as the floats sa and sb in
 * every item. Ends with a barrier, so the arrays may be used again. A group
 * of one item (host-CPU devices) folds its own lanes without barriers. */
#if BLOCK_SIZE == 1
#define NORM_GROUP_SUM2(lid, a, b, sa, sb)                                     \
  const float sa = LANE_SUM(VEC_SIZE, (a));                                  \
  const float sb = LANE_SUM(VEC_SIZE, (b));
#else
#define NORM_GROUP_SUM2(lid, a, b, sa, sb)                                     \
  norm_a[lid] = (a);                                                         \
  norm_b[lid] = (b);                                                         \
  GROUP_TREE_REDUCE(lid, NORM_SUM2_STEP)                                     \
  const float sa = LANE_SUM(VEC_SIZE, norm_a[0]);                            \
  const float sb = LANE_SUM(VEC_SIZE, norm_b[0]);                            \
  barrier(CLK_LOCAL_MEM_FENCE);
#endif

/* Adds the run of type T at p (mult whole vectors after the leading
 * elements) to the sum s and the sum of squares ss of this item. KEEP(i, x)
 * sees every whole vector the item reads (a row cache stores it there). */
#define NORM_ACC_RUN(T, p, mult, lid, s, ss, KEEP)                             \
  {                                                                          \
    if (VEC_SIZE_LEFTOVER > 0 && (lid) == 0) {                               \
      for (int k = 0; k < VEC_SIZE_LEFTOVER; ++k) {                          \
        const float v = NORM_LOAD1(T, (p) + k);                              \
        NORM_FIRST_LANE(s) += v;                                             \
        NORM_FIRST_LANE(ss) += v * v;                                        \
      }                                                                      \
    }                                                                        \
    FOR_SHARE(i, lid, mult, BLOCK_SIZE) {                                    \
      const NORM_VEC x = NORM_LOAD(T, (p) + VEC_SIZE_LEFTOVER + i * VEC_SIZE); \
      KEEP(i, x);                                                            \
      s += x;                                                                \
      ss += x * x;                                                           \
    }                                                                        \
  }
#define NORM_NO_KEEP(i, x)

/* Lane x of a float vector (the value itself for one lane). */
#if VEC_SIZE == 1
#define NORM_FIRST_LANE(v) (v)
#else
#define NORM_FIRST_LANE(v) ((v).x)
#endif

/* Mean and rstd from the sums with the one-pass population variance
 * (a rounding-negative variance counts as 0). */
#define NORM_MEAN_RSTD(sum, sumsq, inv_n, eps, mean, rstd)                     \
  const float mean = (sum) * (inv_n);                                        \
  const float rstd = rsqrt(fmax((sumsq) * (inv_n) - mean * mean, 0.0f) + (eps));

#endif /* NERVA_NORM_H */
