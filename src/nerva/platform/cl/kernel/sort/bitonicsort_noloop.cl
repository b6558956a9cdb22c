/*
 * Bitonic sort of whole rows in one launch: one work group of LOCAL_SIZE0
 * items per row sorts 2 * LOCAL_SIZE0 keys (at most 2048) in local memory.
 * Keys are compared as float; positions past the row hold the filler key.
 * The sorted positions travel with the keys, and each result is read back
 * from its source position, so values keep their own type exactly.
 *
 * Build definitions: BLOCK_SIZE (row length), LOCAL_SIZE0, IN_DTYPE,
 * OUT_DTYPE, INDICES_DTYPE (with WITH_INDICES), DESCENDING, WITH_INDICES,
 * IS_3D (bitonicsort_axis1 on a middle axis: x inner, y sorted, z outer).
 * bitonicsort_axis0 sorts along x of a 2-D (x, row) view; bitonicsort_axis1
 * along y of a 2-D (x, y) or, with IS_3D, 3-D (x, y, z) view.
 */
// #include "common.h"
// #include "sort.h"

#define IN_REG DECL_VEC_TYPE(IN_DTYPE, 1)

/* The source value at position p of the row, or the key itself for a filler
 * position (reached only when NaN or filler-equal keys leave a filler inside
 * the row's result). */
inline IN_REG sort_source_value(__global const uchar *src, uint stride, uint p, float key,
                                int width) {
  return (int)p < width ? VLOAD(IN_DTYPE, 1, (__global IN_DTYPE *)(src + p * stride))
                        : CONVERT(IN_DTYPE, 1, key);
}

/* One row: `src`, `dst` and `idx` point at the row's first element and step
 * by their byte strides along the sorted axis; `i` is the local item. */
inline void bitonic_sort_row(__global const uchar *src, uint src_stride, __global uchar *dst,
                             uint dst_stride, __global uchar *idx, uint idx_stride,
                             int num_stages, int width, __local float *keys,
                             __local uint *pos, uint i) {
  const uint hi = i + LOCAL_SIZE0;
  keys[i] = CONVERT(float, 1, VLOAD(IN_DTYPE, 1, (__global IN_DTYPE *)(src + i * src_stride)));
  keys[hi] = (int)hi < width
                 ? CONVERT(float, 1, VLOAD(IN_DTYPE, 1, (__global IN_DTYPE *)(src + hi * src_stride)))
                 : FILLER_KEY;
  pos[i] = i;
  pos[hi] = hi;
  barrier(CLK_LOCAL_MEM_FENCE);
  for (int stage = 0; stage <= num_stages; ++stage) {
    const uint signo = (i >> stage) & 1;
    for (int pass = 0; pass <= stage; ++pass) {
      const uint post_shift = stage - pass;
      const uint pair_distance = 1u << post_shift;
      const uint left = ((i >> post_shift) << (post_shift + 1)) + (i & (pair_distance - 1));
      const uint right = left + pair_distance;
      /* Branch-free exchange: both slots are always rewritten. */
      const float a = keys[left], b = keys[right];
      const uint pa = pos[left], pb = pos[right];
      const bool swap = bitonic_exchange(a, b, signo);
      keys[left] = swap ? b : a;
      keys[right] = swap ? a : b;
      pos[left] = swap ? pb : pa;
      pos[right] = swap ? pa : pb;
      barrier(CLK_LOCAL_MEM_FENCE);
    }
  }
  /* Read both results before any item writes: the output may be the input. */
  const uint p0 = pos[i], p1 = pos[hi];
  const IN_REG v0 = sort_source_value(src, src_stride, p0, keys[i], width);
  const IN_REG v1 = sort_source_value(src, src_stride, p1, keys[hi], width);
  barrier(CLK_GLOBAL_MEM_FENCE);
  if (i < BLOCK_SIZE) {
    VSTORE(OUT_DTYPE, 1, CONVERT(OUT_DTYPE, 1, v0), (__global OUT_DTYPE *)(dst + i * dst_stride));
#ifdef WITH_INDICES
    *(__global INDICES_DTYPE *)(idx + i * idx_stride) = (INDICES_DTYPE)p0;
#endif
  }
  if (hi < BLOCK_SIZE) {
    VSTORE(OUT_DTYPE, 1, CONVERT(OUT_DTYPE, 1, v1), (__global OUT_DTYPE *)(dst + hi * dst_stride));
#ifdef WITH_INDICES
    *(__global INDICES_DTYPE *)(idx + hi * idx_stride) = (INDICES_DTYPE)p1;
#endif
  }
}

#ifdef WITH_INDICES
#define INDICES_ARG2D DECL_TENSOR2D(indices),
#define INDICES_ROW2D(x, y) (TENSOR_BASE(indices) + (x) * indices_stride_x + (y) * indices_stride_y)
#else
#define INDICES_ARG2D
#define INDICES_ROW2D(x, y) ((__global uchar *)0)
#define indices_stride_x 0
#define indices_stride_y 0
#endif

__kernel void bitonicsort_axis0(DECL_TENSOR2D(src), INDICES_ARG2D DECL_TENSOR2D(dst),
                                int num_stages, int width) {
  __local float keys[2048];
  __local uint pos[2048];
  const size_t row = get_global_id(1);
  bitonic_sort_row(TENSOR_BASE(src) + row * src_stride_y, src_stride_x,
                   TENSOR_BASE(dst) + row * dst_stride_y, dst_stride_x, INDICES_ROW2D(0, row),
                   indices_stride_x, num_stages, width, keys, pos, get_local_id(0));
}

#ifdef IS_3D
#ifdef WITH_INDICES
#define INDICES_ARG_AXIS1 DECL_TENSOR3D(indices),
#define INDICES_COL (TENSOR_BASE(indices) + x * indices_stride_x + z * indices_stride_z)
#else
#define INDICES_ARG_AXIS1
#define INDICES_COL ((__global uchar *)0)
#endif
__kernel void bitonicsort_axis1(DECL_TENSOR3D(src), INDICES_ARG_AXIS1 DECL_TENSOR3D(dst),
                                int num_stages, int width) {
  __local float keys[2048];
  __local uint pos[2048];
  const size_t x = get_global_id(0), z = get_global_id(2);
  bitonic_sort_row(TENSOR_BASE(src) + x * src_stride_x + z * src_stride_z, src_stride_y,
                   TENSOR_BASE(dst) + x * dst_stride_x + z * dst_stride_z, dst_stride_y,
                   INDICES_COL, indices_stride_y, num_stages, width, keys, pos, get_local_id(1));
}
#else
__kernel void bitonicsort_axis1(DECL_TENSOR2D(src), INDICES_ARG2D DECL_TENSOR2D(dst),
                                int num_stages, int width) {
  __local float keys[2048];
  __local uint pos[2048];
  const size_t x = get_global_id(0);
  bitonic_sort_row(TENSOR_BASE(src) + x * src_stride_x, src_stride_y,
                   TENSOR_BASE(dst) + x * dst_stride_x, dst_stride_y, INDICES_ROW2D(x, 0),
                   indices_stride_y, num_stages, width, keys, pos, get_local_id(1));
}
#endif
