/*
 * Passes around an accumulation (see "index.h"): the copy of the input into
 * the output, the scratch set to the reduction's identity, and the final
 * reduction of the input with the scratch.
 */

/* dst = src, `bytes` bytes, 16 per work item. */
__kernel void index_copy(IX_PARAM(src), IX_PARAM(dst), ulong bytes) {
  const ulong first = get_global_id(0) * 16;
  __global const uchar *s = src_ptr + src_off;
  __global uchar *d = dst_ptr + dst_off;
  if (first + 16 <= bytes) {
    vstore16(vload16(0, s + first), 0, d + first);
  } else {
    for (ulong b = first; b < bytes; ++b) d[b] = s[b];
  }
}

__kernel void acc_init(__global ACC_T *acc, __global int *count, ulong n, int op, int counted) {
  const ulong i = get_global_id(0);
  if (i >= n) return;
  acc[i] = ix_identity(op);
  if (counted) count[i] = 0;
}

/* out = the input reduced with what accumulated; positions nothing reached
 * (count 0, when counted) keep the input. */
__kernel void acc_store(IX_PARAM(in), __global const ACC_T *acc, __global const int *count,
                        IX_PARAM(out), ulong n, int op, int include_self, int counted) {
  const ulong i = get_global_id(0);
  if (i >= n) return;
  const ACC_T self = IX_LOAD_ACC(IX_BASE(in, DTYPE), i);
  const int c = counted ? count[i] : 1;
  ACC_T r;
  if (c == 0) {
    r = self;
  } else if (op == IX_MEAN) {
    r = ix_mean(acc[i] + (include_self ? self : (ACC_T)0), (ACC_T)(c + include_self));
  } else {
    r = include_self ? ix_combine(self, acc[i], op) : acc[i];
  }
  IX_STORE_ACC(r, IX_BASE(out, DTYPE), i);
}
