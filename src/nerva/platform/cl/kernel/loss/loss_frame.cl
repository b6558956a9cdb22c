/*
 * Frame of the loss programs, placed ahead of the operator's program. The
 * operator defines
 *   LOSS_PARAMS   its own kernel parameters, each with a leading comma;
 *   LOSS_ARGS     their names, each with a leading comma;
 * and a forward program
 *   float loss_item(long i, float* weight LOSS_PARAMS): the loss of item i
 *                 and, in *weight, its share of a 'mean' divisor;
 * then expands LOSS_FORWARD_KERNELS. On host CPU devices a program may also
 * define, after LOSS_ITEMS16_FROM_ITEMS,
 *   float16 loss_vec16(long i, float16* weight LOSS_PARAMS): items i to i + 15
 *                 as vectors (loss_items16 gives them one item at a time)
 * and expand LOSS_FORWARD_KERNELS_VEC instead. A gradient program defines
 *   float loss_grad(long i LOSS_PARAMS): d loss_item / d input[i]
 * and expands LOSS_BACKWARD_KERNELS. Tensors are a byte pointer and a byte
 * offset; DTYPE is the floating type of the input, the output and the
 * gradients (half or float); sums are in float.
 */
// #include "common.h"
// #include "math.h"
// #include "reduce.h"

#define LOSS_PTR(T, p, off) ((__global T*)((p) + (off)))
/* Element i of a DTYPE tensor `name`, as float. */
#define LOSS_LOAD(name, i) CONVERT(float, 1, VLOAD(DTYPE, 1, LOSS_PTR(DTYPE, name##_ptr, name##_off) + (i)))
/* Elements i to i + 15 of a DTYPE tensor `name`, as float16. */
#define LOSS_LOAD16(name, i) \
  CONVERT(float, 16, VLOAD(DTYPE, 16, LOSS_PTR(DTYPE, name##_ptr, name##_off) + (i)))
#define LOSS_STORE(name, i, v) \
  VSTORE(DTYPE, 1, CONVERT(DTYPE, 1, (float)(v)), LOSS_PTR(DTYPE, name##_ptr, name##_off) + (i))
#define LOSS_TENSOR(name) , __global uchar *name##_ptr, ulong name##_off

/* Input and target of the element-wise losses, and an optional weight of the
 * input's shape (has_w 0: weight 1). */
#define LOSS_XT_PARAMS LOSS_TENSOR(x) LOSS_TENSOR(t)
#define LOSS_XT_ARGS , x_ptr, x_off, t_ptr, t_off
#define LOSS_W_PARAMS LOSS_TENSOR(w), int has_w
#define LOSS_W_ARGS , w_ptr, w_off, has_w
#define LOSS_WEIGHT(i) (has_w ? LOSS_LOAD(w, i) : 1.0f)

/* Class-index losses over input (outer, classes, inner) and targets of
 * DTYPE_T: their tensors and sizes, the target of item i, and
 * LOSS_CLASS_TARGET(c, i), which declares the target c of item i and returns
 * from loss_item (loss 0, weight 0) for an ignored target or (NaN, NaN) for
 * one outside [0, classes). */
#define LOSS_CLASS_PARAMS \
  LOSS_TENSOR(x) LOSS_TENSOR(tg) LOSS_W_PARAMS, long classes, long inner, long ignore_index
#define LOSS_CLASS_ARGS , x_ptr, x_off, tg_ptr, tg_off, w_ptr, w_off, has_w, classes, inner, ignore_index
#define LOSS_TARGET(i) ((long)LOSS_PTR(DTYPE_T, tg_ptr, tg_off)[i])
#define LOSS_CLASS_TARGET(c, i)                                                \
  const long c = LOSS_TARGET(i);                                             \
  if (c == ignore_index) {                                                   \
    *weight = 0.0f;                                                          \
    return 0.0f;                                                             \
  }                                                                          \
  if (c < 0 || c >= classes) {                                               \
    *weight = NAN;                                                           \
    return NAN;                                                              \
  }

#define LOSS_SUM_STEP(d, s) \
  loss_v[d] += loss_v[s];   \
  loss_w[d] += loss_w[s];

/* Folds this work item's share of the `len` items from `first` into v and w.
 * On devices whose compiler targets the host CPU a contiguous share, eight
 * items a step into eight independent sums (so the steps vectorise); else
 * every BLOCK_SIZE-th item. */
#ifdef NERVA_HOST_CPU_DEVICE
#define LOSS_FOLD_SHARE(first, len, lid, v, w)                                 \
  {                                                                            \
    const long per = ((len) + BLOCK_SIZE - 1) / BLOCK_SIZE;                    \
    const long lo = min((len), (lid) * per), hi = min((len), lo + per);        \
    float va[8] = {0}, wa[8] = {0};                                            \
    long j = lo;                                                               \
    for (; j + 8 <= hi; j += 8) {                                              \
      _Pragma("unroll") for (int u = 0; u < 8; ++u) {                          \
        float wj;                                                              \
        va[u] += loss_item((first) + j + u, &wj LOSS_ARGS);                    \
        wa[u] += wj;                                                           \
      }                                                                        \
    }                                                                          \
    for (; j < hi; ++j) {                                                      \
      float wj;                                                                \
      va[0] += loss_item((first) + j, &wj LOSS_ARGS);                          \
      wa[0] += wj;                                                             \
    }                                                                          \
    _Pragma("unroll") for (int u = 0; u < 8; ++u) {                            \
      v += va[u];                                                              \
      w += wa[u];                                                              \
    }                                                                          \
  }
#else
/* Elsewhere every BLOCK_SIZE-th item, four at a time into four sums, so that
 * each work item has four independent loads in flight. */
#define LOSS_FOLD_SHARE(first, len, lid, v, w)                                 \
  {                                                                            \
    float va[4] = {0}, wa[4] = {0};                                            \
    long j = (lid);                                                            \
    for (; j + 3 * BLOCK_SIZE < (len); j += 4 * BLOCK_SIZE) {                  \
      _Pragma("unroll") for (int u = 0; u < 4; ++u) {                          \
        float wj;                                                              \
        va[u] += loss_item((first) + j + u * BLOCK_SIZE, &wj LOSS_ARGS);       \
        wa[u] += wj;                                                           \
      }                                                                        \
    }                                                                          \
    for (; j < (len); j += BLOCK_SIZE) {                                       \
      float wj;                                                                \
      va[0] += loss_item((first) + j, &wj LOSS_ARGS);                          \
      wa[0] += wj;                                                             \
    }                                                                          \
    v += (va[0] + va[1]) + (va[2] + va[3]);                                    \
    w += (wa[0] + wa[1]) + (wa[2] + wa[3]);                                    \
  }
#endif

/* loss_none: one value per item. loss_partial: group g folds items
 * [g * chunk, (g + 1) * chunk) into part[2g] (losses) and part[2g + 1]
 * (weights). loss_final: one group folds the partial sums; 'mean' divides
 * the loss by `divisor`, or by the summed weights when divisor < 0; the
 * summed weights go to total weight when has_tw. */
#define LOSS_GROUP_KERNELS                                                   \
  __kernel void loss_none(long n LOSS_TENSOR(out) LOSS_PARAMS) {               \
    const long i = get_global_id(0);                                           \
    if (i >= n) return;                                                        \
    float w;                                                                   \
    const float v = loss_item(i, &w LOSS_ARGS);                                \
    LOSS_STORE(out, i, v);                                                     \
  }                                                                            \
  __kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void loss_partial( \
      long n, long chunk, __global float* part LOSS_PARAMS) {                  \
    const int lid = get_local_id(0);                                           \
    const long g = get_group_id(0);                                            \
    const long first = g * chunk;                                              \
    const long len = max(0L, min(n - first, chunk));                           \
    float v = 0.0f, w = 0.0f;                                                  \
    LOSS_FOLD_SHARE(first, len, lid, v, w)                                     \
    __local float loss_v[BLOCK_SIZE], loss_w[BLOCK_SIZE];                      \
    loss_v[lid] = v;                                                           \
    loss_w[lid] = w;                                                           \
    GROUP_TREE_REDUCE(lid, LOSS_SUM_STEP)                                      \
    if (lid == 0) {                                                            \
      part[2 * g] = loss_v[0];                                                 \
      part[2 * g + 1] = loss_w[0];                                             \
    }                                                                          \
  }                                                                            \
  __kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void loss_final( \
      int groups, int mean, float divisor, __global const float* part          \
      LOSS_TENSOR(out) LOSS_TENSOR(tw), int has_tw) {                          \
    const int lid = get_local_id(0);                                           \
    float v = 0.0f, w = 0.0f;                                                  \
    for (int g = lid; g < groups; g += BLOCK_SIZE) {                           \
      v += part[2 * g];                                                        \
      w += part[2 * g + 1];                                                    \
    }                                                                          \
    __local float loss_v[BLOCK_SIZE], loss_w[BLOCK_SIZE];                      \
    loss_v[lid] = v;                                                           \
    loss_w[lid] = w;                                                           \
    GROUP_TREE_REDUCE(lid, LOSS_SUM_STEP)                                      \
    if (lid == 0) {                                                            \
      const float d = divisor < 0.0f ? loss_w[0] : divisor;                    \
      LOSS_STORE(out, 0, mean ? loss_v[0] / d : loss_v[0]);                    \
      if (has_tw) LOSS_STORE(tw, 0, loss_w[0]);                                \
    }                                                                          \
  }

/* Host CPU devices fold contiguous chunks instead of groups: loss_chunks item
 * g folds items [g * chunk, (g + 1) * chunk) sixteen at a time into float16
 * sums (the rest one at a time) and writes part[2g] (losses) and
 * part[2g + 1] (weights); loss_final folds those. No barriers, so the work
 * items of a group run one after the other without spilling. */
#ifdef NERVA_HOST_CPU_DEVICE
#define LOSS_ITEMS16_FROM_ITEMS                                                \
  inline float16 loss_items16(long i, float16* weight LOSS_PARAMS) {           \
    float v[16], w[16];                                                        \
    _Pragma("unroll") for (int u = 0; u < 16; ++u) v[u] = loss_item(i + u, &w[u] LOSS_ARGS); \
    *weight = vload16(0, w);                                                   \
    return vload16(0, v);                                                      \
  }
#define LOSS_CHUNK_KERNEL(ITEMS16)                                             \
  __kernel void loss_chunks(long n, long chunk, __global float* part LOSS_PARAMS) { \
    const long g = get_global_id(0);                                           \
    const long lo = min(n, g * chunk), hi = min(n, lo + chunk);                \
    float16 va = 0.0f, wa = 0.0f;                                              \
    long j = lo;                                                               \
    for (; j + 16 <= hi; j += 16) {                                            \
      float16 wj;                                                              \
      va += ITEMS16(j, &wj LOSS_ARGS);                                         \
      wa += wj;                                                                \
    }                                                                          \
    float v = LANE_SUM(16, va), w = LANE_SUM(16, wa);                    \
    for (; j < hi; ++j) {                                                      \
      float wj;                                                                \
      v += loss_item(j, &wj LOSS_ARGS);                                        \
      w += wj;                                                                 \
    }                                                                          \
    part[2 * g] = v;                                                           \
    part[2 * g + 1] = w;                                                       \
  }
#else
#define LOSS_ITEMS16_FROM_ITEMS
#define LOSS_CHUNK_KERNEL(ITEMS16)
#endif

#define LOSS_FORWARD_KERNELS \
  LOSS_ITEMS16_FROM_ITEMS LOSS_CHUNK_KERNEL(loss_items16) LOSS_GROUP_KERNELS
#define LOSS_FORWARD_KERNELS_VEC LOSS_CHUNK_KERNEL(loss_vec16) LOSS_GROUP_KERNELS

/* grad_input[i] = loss_grad(i) * grad_output[i * go_step] * scale: go_step is
 * 1 after 'none' and 0 after a reduction; scale is 1 / n after 'mean'. */
#define LOSS_BACKWARD_KERNELS                                                  \
  __kernel void loss_backward(long n LOSS_TENSOR(go), long go_step, float scale \
                              LOSS_TENSOR(gi) LOSS_PARAMS) {                   \
    const long i = get_global_id(0);                                           \
    if (i >= n) return;                                                        \
    LOSS_STORE(gi, i, loss_grad(i LOSS_ARGS) * LOSS_LOAD(go, i * go_step) * scale); \
  }
