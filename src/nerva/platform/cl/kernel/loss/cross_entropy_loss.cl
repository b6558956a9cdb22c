/* CrossEntropyLoss over logits (outer, classes, inner) and class-index
 * targets, with label smoothing s: (1 - s) (-w[c] lp[c]) + s / classes *
 * sum_k -w[k] lp[k], lp the log-softmax of the item's logits, found in one
 * pass with a running maximum. Weights, ignore_index and targets outside
 * [0, classes) as NllLoss. */
#define LOSS_PARAMS LOSS_CLASS_PARAMS, float smoothing
#define LOSS_ARGS LOSS_CLASS_ARGS, smoothing
inline float loss_item(long i, float* weight LOSS_PARAMS) {
  LOSS_CLASS_TARGET(c, i)
  const long base = (i / inner) * classes * inner + i % inner;
  float m = -INFINITY, s = 0.0f, wx = 0.0f, ws = 0.0f;
  for (long k = 0; k < classes; ++k) {
    const float v = LOSS_LOAD(x, base + k * inner);
    if (v > m) {
      s = s * exp(m - v) + 1.0f;
      m = v;
    } else {
      s += exp(v - m);
    }
    if (smoothing != 0.0f) {
      const float wk = LOSS_WEIGHT(k);
      wx += wk * v;
      ws += wk;
    }
  }
  const float lse = m + log(s);
  const float w = LOSS_WEIGHT(c);
  *weight = w;
  const float nll = -w * (LOSS_LOAD(x, base + c * inner) - lse);
  if (smoothing == 0.0f) return nll;
  return (1.0f - smoothing) * nll - smoothing / (float)classes * (wx - ws * lse);
}
LOSS_FORWARD_KERNELS

/* The same loss with one group per item, for long rows: the items of the
 * group share the row, fold its maximum and then its sum of exponentials
 * (and, with smoothing, the weighted sums) through the group tree. Item i's
 * loss and weight go to part[2i], part[2i + 1], which loss_final folds, and
 * under 'none' (store_out) to out[i]. */
#define CE_VEC 8
#define CE_VT float8
#define CE_MAX_STEP(d, s) ce_a[d] = fmax(ce_a[d], ce_a[s]);
#define CE_SUM_STEP(d, s) \
  ce_a[d] += ce_a[s];     \
  ce_b[d] += ce_b[s];     \
  ce_c[d] += ce_c[s];
/* Merges running (maximum, sum of exponentials) pairs: ce_a holds maxima, ce_b sums. */
#define CE_RESCALED(m, s, to) ((m) == -INFINITY ? 0.0f : (s) * exp((m) - (to)))
#define CE_LSE_STEP(d, s)                                           \
  {                                                                 \
    const float to = fmax(ce_a[d], ce_a[s]);                        \
    ce_b[d] = CE_RESCALED(ce_a[d], ce_b[d], to) + CE_RESCALED(ce_a[s], ce_b[s], to); \
    ce_a[d] = to;                                                   \
  }
__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void ce_rows(
    __global float* part, int store_out LOSS_TENSOR(out) LOSS_PARAMS) {
  const long i = get_group_id(0);
  const int lid = get_local_id(0);
  const long c = LOSS_TARGET(i);
  const int skip = c == ignore_index || c < 0 || c >= classes;
  const long base = (i / inner) * classes * inner + i % inner;
  const long len = skip ? 0 : classes;
  __local float ce_a[BLOCK_SIZE], ce_b[BLOCK_SIZE], ce_c[BLOCK_SIZE];
  /* A contiguous row without smoothing is read once, CE_VEC elements at a time:
   * each item keeps a running maximum and rescales its sum when the maximum
   * grows. Other rows take one pass for the maximum and one for the sums. */
  __global const DTYPE* row = LOSS_PTR(DTYPE, x_ptr, x_off) + base;
  const int vec = inner == 1 && smoothing == 0.0f;
  float m = -INFINITY, s = 0.0f, wx = 0.0f, ws = 0.0f;
  if (vec) {
    const long vlen = len / CE_VEC;
    CE_VT sv = (CE_VT)(0.0f);
    FOR_SHARE(k, lid, vlen, BLOCK_SIZE) {
      const CE_VT v = VLOAD(DTYPE, CE_VEC, row + k * CE_VEC);
      const float vm = LANE_FOLD(4, fmax(v.lo, v.hi), fmax);
      if (vm > m) {
        sv *= exp(m - vm);
        m = vm;
      }
      if (m != -INFINITY) sv += exp(v - m);
    }
    s = LANE_SUM(4, sv.lo + sv.hi);
    for (long k = vlen * CE_VEC + lid; k < len; k += BLOCK_SIZE) {
      const float v = LOSS_LOAD(x, base + k);
      if (v > m) {
        s *= exp(m - v);
        m = v;
      }
      if (m != -INFINITY) s += exp(v - m);
    }
    ce_a[lid] = m;
    ce_b[lid] = s;
    GROUP_TREE_REDUCE(lid, CE_LSE_STEP)
    m = ce_a[0];
    s = ce_b[0];
  } else {
    for (long k = lid; k < len; k += BLOCK_SIZE) m = fmax(m, LOSS_LOAD(x, base + k * inner));
    ce_a[lid] = m;
    GROUP_TREE_REDUCE(lid, CE_MAX_STEP)
    m = ce_a[0];
    barrier(CLK_LOCAL_MEM_FENCE);
    FOR_SHARE(k, lid, len, BLOCK_SIZE) {
      const float v = LOSS_LOAD(x, base + k * inner);
      const float wk = LOSS_WEIGHT(k);
      s += exp(v - m);
      wx += wk * v;
      ws += wk;
    }
    ce_a[lid] = s;
    ce_b[lid] = wx;
    ce_c[lid] = ws;
    GROUP_TREE_REDUCE(lid, CE_SUM_STEP)
    s = ce_a[0];
    wx = ce_b[0];
    ws = ce_c[0];
  }
  if (lid != 0) return;
  float loss, weight;
  if (skip) {
    loss = weight = c == ignore_index ? 0.0f : NAN;
  } else {
    const float lse = m + log(s);
    weight = LOSS_WEIGHT(c);
    loss = -weight * (LOSS_LOAD(x, base + c * inner) - lse);
    if (smoothing != 0.0f) {
      loss = (1.0f - smoothing) * loss - smoothing / (float)classes * (wx - ws * lse);
    }
  }
  part[2 * i] = loss;
  part[2 * i + 1] = weight;
  if (store_out) LOSS_STORE(out, i, loss);
}

#ifdef NERVA_HOST_CPU_DEVICE
/* Lane-wise maximum (a NaN lane in v is skipped: the sums carry NaN). */
#define CE_MAX(m, v) select((m), (v), (v) > (m))
/* Elements of a row whose maximum serves as the reference of the exponentials. */
#define CE_LEAD 256
/* A row's reference may lie this far below its maximum (e^64 times 2^31
 * terms stays finite) before the row is summed again from its maximum. */
#define CE_HEADROOM 64.0f

/* The sum of exp(x - ref) over the whole vectors of the row at `base`. */
inline float ce_exp_sum(long base, long vl, float ref LOSS_PARAMS) {
  float16 s16 = 0.0f;
  for (long k = 0; k < vl; k += 16) {
    s16 += nerva_exp2_nonpositive((LOSS_LOAD16(x, base + k) - ref) * NERVA_LOG2E);
  }
  return LANE_SUM(16, s16);
}

/* The loss and weight of contiguous row i (inner 1), read once: the maximum
 * of the row's first CE_LEAD elements (and its leftover ones) is the
 * reference of the exponentials summed while the row's maximum is found;
 * a row whose maximum exceeds the reference by more than CE_HEADROOM is
 * summed again from its maximum (it is in cache). Sixteen lanes at a time,
 * the leftover one at a time. */
inline float ce_row(long i, float* weight LOSS_PARAMS) {
  LOSS_CLASS_TARGET(c, i)
  const long base = i * classes, vl = classes / 16 * 16;
  float16 m16 = -INFINITY;
  for (long k = 0; k < min(vl, (long)CE_LEAD); k += 16) m16 = CE_MAX(m16, LOSS_LOAD16(x, base + k));
  float ref = LANE_FOLD(16, m16, fmax);
  for (long k = vl; k < classes; ++k) ref = fmax(ref, LOSS_LOAD(x, base + k));
  float16 s16 = 0.0f, wx16 = 0.0f, ws16 = 0.0f;
  if (smoothing == 0.0f) {
    for (long k = 0; k < vl; k += 16) {
      const float16 v = LOSS_LOAD16(x, base + k);
      m16 = CE_MAX(m16, v);
      s16 += nerva_exp2_nonpositive((v - ref) * NERVA_LOG2E);
    }
  } else {
    for (long k = 0; k < vl; k += 16) {
      const float16 v = LOSS_LOAD16(x, base + k);
      const float16 wk = has_w ? LOSS_LOAD16(w, k) : (float16)(1.0f);
      m16 = CE_MAX(m16, v);
      s16 += nerva_exp2_nonpositive((v - ref) * NERVA_LOG2E);
      wx16 += wk * v;
      ws16 += wk;
    }
  }
  float s = LANE_SUM(16, s16), wx = LANE_SUM(16, wx16), ws = LANE_SUM(16, ws16);
  const float m = fmax(LANE_FOLD(16, m16, fmax), ref);
  if (m > ref + CE_HEADROOM) {
    ref = m;
    s = ce_exp_sum(base, vl, ref LOSS_ARGS);
  }
  for (long k = vl; k < classes; ++k) {
    const float v = LOSS_LOAD(x, base + k), wk = LOSS_WEIGHT(k);
    s += NERVA_EXP(v - ref);
    wx += wk * v;
    ws += wk;
  }
  const float lse = ref + log(s);
  const float w = LOSS_WEIGHT(c);
  *weight = w;
  const float nll = -w * (LOSS_LOAD(x, base + c) - lse);
  if (smoothing == 0.0f) return nll;
  return (1.0f - smoothing) * nll - smoothing / (float)classes * (wx - ws * lse);
}

/* Host CPU devices, contiguous rows: work item g takes rows [g * per,
 * (g + 1) * per) one after the other, no barriers. Their losses and weights
 * sum into part[2g], part[2g + 1], which loss_final folds; under 'none'
 * (store_out) each row's loss goes to out. */
__kernel void ce_row_chunks(long rows, long per, __global float* part,
                            int store_out LOSS_TENSOR(out) LOSS_PARAMS) {
  const long g = get_global_id(0);
  const long lo = min(rows, g * per), hi = min(rows, lo + per);
  float v = 0.0f, w = 0.0f;
  for (long i = lo; i < hi; ++i) {
    float wi;
    const float vi = ce_row(i, &wi LOSS_ARGS);
    if (store_out) LOSS_STORE(out, i, vi);
    v += vi;
    w += wi;
  }
  part[2 * g] = v;
  part[2 * g + 1] = w;
}
#endif
