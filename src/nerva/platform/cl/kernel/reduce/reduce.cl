/*
 * Reduce: folds a run of elements into one value per kept position.
 * Definitions: OP (MAX, MIN, SUM, VAR, PROD, AND, OR), DTYPE (input),
 * DTYPE_OUT (output), ACCUM_DTYPE, INIT (the fold's start value), VEC_SIZE,
 * VEC_SIZE_LEFTOVER, BLOCK_SIZE and one variant switch: GLOBAL_REDUCE,
 * GLOBAL_REDUCE_TO_SCALAR, REDUCE_ON_ROW, REDUCE_ON_COL, REDUCE_3DXZ,
 * REDUCE_ON_3DY or REDUCE_SPLIT_COLUMNS. Kind switches: ENABLE_REDUCE_MEAN, ENABLE_REDUCE_VAR,
 * ENABLE_REDUCE_LOGICAL, ENABLE_REDUCE_COUNT_NONZERO.
 *
 * A program placed ahead of this text may define REDUCE_MAP(N, v) (input
 * lanes to accumulator lanes) and REDUCE_FINISH(N, a, a2) (folded
 * accumulator to result) to reuse the variants; the vector norm does.
 *
 * Floating maximum and minimum start from -inf / +inf and propagate NaN, as
 * torch.amax / amin do; integer ones start from INIT.
 */
// #include "common.h"
// #include "reduce.h"

#define ACC_VEC NERVA_VEC(ACCUM_DTYPE, VEC_SIZE)

#define RED_SUM(a, b) ((a) + (b))
#define RED_VAR(a, b) ((a) + (b))
#define RED_PROD(a, b) ((a) * (b))
#define RED_AND(a, b) ((a) & (b))
#define RED_OR(a, b) ((a) | (b))
#if NERVA_IS_FLOAT(ACCUM_DTYPE)
#define RED_MAX(a, b) NERVA_NAN_MAX(a, b)
#define RED_MIN(a, b) NERVA_NAN_MIN(a, b)
#define RED_START_MAX (-INFINITY)
#define RED_START_MIN INFINITY
#else
#define RED_MAX(a, b) max(a, b)
#define RED_MIN(a, b) min(a, b)
#define RED_START_MAX ((ACCUM_DTYPE)(INIT))
#define RED_START_MIN ((ACCUM_DTYPE)(INIT))
#endif
#define RED_START_SUM ((ACCUM_DTYPE)(INIT))
#define RED_START_VAR ((ACCUM_DTYPE)(INIT))
#define RED_START_PROD ((ACCUM_DTYPE)(INIT))
#define RED_START_AND ((ACCUM_DTYPE)(INIT))
#define RED_START_OR ((ACCUM_DTYPE)(INIT))
#define COMBINE NERVA_CAT(RED_, OP)
#define RED_START NERVA_CAT(RED_START_, OP)

/* Input lanes (register type of DTYPE) to accumulator lanes. */
#ifndef REDUCE_MAP
#if defined(ENABLE_REDUCE_LOGICAL) || defined(ENABLE_REDUCE_COUNT_NONZERO)
#define REDUCE_MAP(N, v) \
  CONVERT_WRAP(ACCUM_DTYPE, N, NERVA_TRUTH(N, (v) != (DECL_VEC_TYPE(DTYPE, N))(0)))
#else
#define REDUCE_MAP(N, v) CONVERT(ACCUM_DTYPE, N, v)
#endif
#endif

/* Folded sum (a) and sum of squares (a2, variance only) to the result, lane-wise. */
#ifndef REDUCE_FINISH
#if defined(ENABLE_REDUCE_VAR)
#define REDUCE_FINISH(N, a, a2) \
  (((a2) * inv_reduction_size - ((a) * inv_reduction_size) * ((a) * inv_reduction_size)) * based_coeff)
#elif defined(ENABLE_REDUCE_MEAN)
#define REDUCE_FINISH(N, a, a2) ((a) * inv_reduction_size)
#elif defined(ENABLE_REDUCE_LOGICAL)
#define REDUCE_FINISH(N, a, a2) NERVA_TRUTH(N, (a) != 0)
#else
#define REDUCE_FINISH(N, a, a2) (a)
#endif
#endif

/* The fold of one work item: acc (and acc2, the sum of squares, for variance). */
#ifdef ENABLE_REDUCE_VAR
#define ACC_DECL(N) NERVA_VEC(ACCUM_DTYPE, N) acc = RED_START, acc2 = RED_START
#define ACC_SQUARES acc2
#define ACC_ADD(v)                                                             \
  {                                                                          \
    const ACC_VEC t_ = (v);                                                  \
    acc += t_;                                                               \
    acc2 += t_ * t_;                                                         \
  }
#define ACC_ADD_X(s)                                                           \
  {                                                                          \
    const ACCUM_DTYPE t_ = (s);                                              \
    acc.x += t_;                                                             \
    acc2.x += t_ * t_;                                                       \
  }
#else
#define ACC_DECL(N) NERVA_VEC(ACCUM_DTYPE, N) acc = RED_START
#define ACC_SQUARES 0
#define ACC_ADD(v) acc = COMBINE(acc, (v))
#define ACC_ADD_X(s) acc.x = COMBINE(acc.x, (s))
#endif

#define LOAD_VEC(p) REDUCE_MAP(VEC_SIZE, VLOAD(DTYPE, VEC_SIZE, p))
#define LOAD_ONE(p) REDUCE_MAP(1, VLOAD(DTYPE, 1, p))

/* Work item 0 folds the leftover elements at the start of the run p into lane x. */
#if VEC_SIZE_LEFTOVER > 0
#define FOLD_LEFTOVER(p)                                                       \
  for (int k = 0; k < VEC_SIZE_LEFTOVER; ++k) ACC_ADD_X(LOAD_ONE((p) + k))
#else
#define FOLD_LEFTOVER(p)
#endif

/* Tree over the group; entry 0 of red_buf (and red_buf2) then holds the group's fold. */
#ifdef ENABLE_REDUCE_VAR
#define TREE_STEP(d, s)                                                        \
  red_buf[d] = red_buf[d] + red_buf[s];                                      \
  red_buf2[d] = red_buf2[d] + red_buf2[s];
#define GROUP_FOLD(lid)                                                        \
  __local ACC_VEC red_buf[BLOCK_SIZE];                                       \
  __local ACC_VEC red_buf2[BLOCK_SIZE];                                      \
  red_buf[lid] = acc;                                                        \
  red_buf2[lid] = acc2;                                                      \
  GROUP_TREE_REDUCE(lid, TREE_STEP)
#define FOLDED_SQUARES() LANE_SUM(VEC_SIZE, red_buf2[0])
#else
#define TREE_STEP(d, s) red_buf[d] = COMBINE(red_buf[d], red_buf[s]);
#define GROUP_FOLD(lid)                                                        \
  __local ACC_VEC red_buf[BLOCK_SIZE];                                       \
  red_buf[lid] = acc;                                                        \
  GROUP_TREE_REDUCE(lid, TREE_STEP)
#define FOLDED_SQUARES() 0
#endif

/* Lane fold of the kind: sum-like lanes by a dot product, the others pairwise. */
#define LANE_COMBINE(N, v) NERVA_CAT(LANE_COMBINE_, OP)(N, v)
#define LANE_COMBINE_SUM(N, v) LANE_SUM(N, v)
#define LANE_COMBINE_VAR(N, v) LANE_SUM(N, v)
#define LANE_COMBINE_MAX(N, v) LANE_FOLD(N, v, COMBINE)
#define LANE_COMBINE_MIN(N, v) LANE_FOLD(N, v, COMBINE)
#define LANE_COMBINE_PROD(N, v) LANE_FOLD(N, v, COMBINE)
#define LANE_COMBINE_AND(N, v) LANE_FOLD(N, v, COMBINE)
#define LANE_COMBINE_OR(N, v) LANE_FOLD(N, v, COMBINE)

/* The group's finished scalar result (read by work item 0). */
#define GROUP_RESULT() REDUCE_FINISH(1, LANE_COMBINE(VEC_SIZE, red_buf[0]), FOLDED_SQUARES())

#define STORE_ONE(v, p) VSTORE(DTYPE_OUT, 1, CONVERT(DTYPE_OUT, 1, v), p)

/* Column variants: one item per vector of kept columns. Vectors are shifted
 * back so the last one ends at the row's end (the first overlaps the second);
 * items past the `mult_of_vector_size_x` vectors repeat the last one and
 * store nothing. */
#define COLUMN_ITEM() min((int)get_global_id(0), mult_of_vector_size_x - 1)
#if VEC_SIZE_LEFTOVER == 0
#define COLUMN_OFFSET() (COLUMN_ITEM() * VEC_SIZE)
#else
#define COLUMN_OFFSET() VEC_OFFSET(COLUMN_ITEM(), VEC_SIZE, VEC_SIZE_LEFTOVER)
#endif
#define COLUMN_STORES() ((int)get_global_id(0) < mult_of_vector_size_x)

#if defined(MAKE_CONTIGUOUS)
/* Only the copy at the end of this text. */

#elif defined(GLOBAL_REDUCE)
/* Pass one: every item folds each stride_x-th vector; one partial per group. */
__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void global_reduce(
    __global const DTYPE* src, __global ACCUM_DTYPE* partial, uint mult_of_vector_size,
    uint stride_x) {
  const int lid = get_local_id(0);
  const uint gid = get_global_id(0);
  ACC_DECL(VEC_SIZE);
#if VEC_SIZE_LEFTOVER > 0
  if (gid == 0) FOLD_LEFTOVER(src);
#endif
  __global const DTYPE* p = src + VEC_SIZE_LEFTOVER;
  FOR_SHARE(i, gid, mult_of_vector_size, stride_x) ACC_ADD(LOAD_VEC(p + i * VEC_SIZE));
  GROUP_FOLD(lid);
  if (lid == 0) partial[get_group_id(0)] = LANE_COMBINE(VEC_SIZE, red_buf[0]);
}

#elif defined(GLOBAL_REDUCE_TO_SCALAR)
/* Pass two: one group folds the partials (already mapped) and writes the result. */
__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void reduce_to_scalar(
    __global const ACCUM_DTYPE* partial, __global DTYPE_OUT* dst, float inv_reduction_size,
    uint mult_of_vector_size) {
  const int lid = get_local_id(0);
  const float based_coeff = 1.0f;
  ACC_DECL(1);
  for (uint i = lid; i < mult_of_vector_size; i += BLOCK_SIZE) ACC_ADD(partial[i]);
  GROUP_FOLD(lid);
  if (lid == 0) STORE_ONE(GROUP_RESULT(), dst);
}

#elif defined(REDUCE_ON_ROW)
/* One group per row of a (rows x run) view. */
__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void reduce_on_row(
    DECL_TENSOR2D(src), DECL_TENSOR1D(dst), float based_coeff, float inv_reduction_size,
    int height, int channel, int mult_of_vector_size_x) {
  const int lid = get_local_id(0);
  const int row = get_global_id(1);
  __global const DTYPE* p = TENSOR2D_PTR(src, DTYPE, 0, row);
  ACC_DECL(VEC_SIZE);
  if (lid == 0) FOLD_LEFTOVER(p);
  p += VEC_SIZE_LEFTOVER;
  FOR_SHARE(i, lid, mult_of_vector_size_x, BLOCK_SIZE) ACC_ADD(LOAD_VEC(p + i * VEC_SIZE));
  GROUP_FOLD(lid);
  if (lid == 0) STORE_ONE(GROUP_RESULT(), TENSOR1D_PTR(dst, DTYPE_OUT, row));
}

#elif defined(REDUCE_3DXZ)
/* One group per kept index y of a (channel x kept x run) view: z and x are reduced. */
__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void reduce_on_xz(
    DECL_TENSOR3D(src), DECL_TENSOR1D(dst), float based_coeff, float inv_reduction_size,
    int height, int channel, int mult_of_vector_size_x) {
  const int lid = get_local_id(0);
  const int y = get_global_id(1);
  ACC_DECL(VEC_SIZE);
  for (int z = 0; z < channel; ++z) {
    __global const DTYPE* p = TENSOR3D_PTR(src, DTYPE, 0, y, z);
    if (lid == 0) FOLD_LEFTOVER(p);
    p += VEC_SIZE_LEFTOVER;
    FOR_SHARE(i, lid, mult_of_vector_size_x, BLOCK_SIZE) {
      ACC_ADD(LOAD_VEC(p + i * VEC_SIZE));
    }
  }
  GROUP_FOLD(lid);
  if (lid == 0) STORE_ONE(GROUP_RESULT(), TENSOR1D_PTR(dst, DTYPE_OUT, y));
}

#elif defined(REDUCE_SPLIT_COLUMNS)
/* Column folds for devices that are not the host CPU, on an (outer x height x
 * run) view: neighbouring items read neighbouring columns, and the reduced
 * rows are split into chunks of `rows` so that many groups share a column.
 * Pass one: item (column vector, z * splits + s) folds chunk s of slice z into
 * partial[z][s][col] (accumulator type; for variance the sums of squares
 * follow in a second plane of `plane` elements). */
__kernel void reduce_split_partial(DECL_TENSOR3D(src), __global ACCUM_DTYPE* partial, int height,
                                   int rows, int splits, int run, long plane,
                                   int mult_of_vector_size_x) {
  const int col = COLUMN_OFFSET();
  const int zs = get_global_id(1);
  const int z = zs / splits;
  const int r0 = (zs - z * splits) * rows;
  const int r1 = min(height, r0 + rows);
  ACC_DECL(VEC_SIZE);
  for (int r = r0; r < r1; ++r) ACC_ADD(LOAD_VEC(TENSOR3D_PTR(src, DTYPE, col, r, z)));
  if (!COLUMN_STORES()) return;
  __global ACCUM_DTYPE* q = partial + (long)zs * run + col;
  NERVA_STOREN(VEC_SIZE, acc, q);
#ifdef ENABLE_REDUCE_VAR
  NERVA_STOREN(VEC_SIZE, acc2, q + plane);
#endif
}

#ifdef NERVA_HOST_CPU_DEVICE
/* The first pass where a group's items run one after the other (CPU
 * devices): item (s, z) streams whole rows of chunk s of slice z and folds
 * them into its partial row partial[z][s][:], four input rows per pass over
 * the partial, which stays in cache. Columns go in ROW_VEC-wide vectors, the
 * last `run % ROW_VEC` one by one. */
#define RP_ACC(N) NERVA_VEC(ACCUM_DTYPE, N)
#define RP_LD(N, p) REDUCE_MAP(N, VLOAD(DTYPE, N, p))
#ifdef ENABLE_REDUCE_VAR
#define RP_FIRST(N, c)                                                         \
  {                                                                          \
    const RP_ACC(N) a = RP_LD(N, x0 + (c));                                  \
    NERVA_STOREN(N, a, q + (c));                                             \
    NERVA_STOREN(N, a * a, q + plane + (c));                                 \
  }
#define RP_ADD4(N, c)                                                          \
  {                                                                          \
    const RP_ACC(N) a = RP_LD(N, x0 + (c)), b = RP_LD(N, x1 + (c));          \
    const RP_ACC(N) e = RP_LD(N, x2 + (c)), f = RP_LD(N, x3 + (c));          \
    NERVA_STOREN(N, NERVA_LOADN(N, q + (c)) + ((a + b) + (e + f)), q + (c)); \
    NERVA_STOREN(N, NERVA_LOADN(N, q + plane + (c)) + ((a * a + b * b) + (e * e + f * f)), \
                 q + plane + (c));                                           \
  }
#define RP_ADD1(N, c)                                                          \
  {                                                                          \
    const RP_ACC(N) a = RP_LD(N, x0 + (c));                                  \
    NERVA_STOREN(N, NERVA_LOADN(N, q + (c)) + a, q + (c));                   \
    NERVA_STOREN(N, NERVA_LOADN(N, q + plane + (c)) + a * a, q + plane + (c)); \
  }
#else
#define RP_FIRST(N, c) NERVA_STOREN(N, RP_LD(N, x0 + (c)), q + (c));
#define RP_ADD4(N, c)                                                          \
  {                                                                          \
    const RP_ACC(N) a = RP_LD(N, x0 + (c)), b = RP_LD(N, x1 + (c));          \
    const RP_ACC(N) e = RP_LD(N, x2 + (c)), f = RP_LD(N, x3 + (c));          \
    NERVA_STOREN(N, COMBINE(NERVA_LOADN(N, q + (c)), COMBINE(COMBINE(a, b), COMBINE(e, f))), \
                 q + (c));                                                   \
  }
#define RP_ADD1(N, c) NERVA_STOREN(N, COMBINE(NERVA_LOADN(N, q + (c)), RP_LD(N, x0 + (c))), q + (c));
#endif
/* Applies STEP(N, c) to every column of the run. */
#define RP_COLUMNS(STEP)                                                       \
  {                                                                          \
    int c = 0;                                                               \
    for (; c + ROW_VEC <= run; c += ROW_VEC) STEP(ROW_VEC, c)                \
    for (; c < run; ++c) STEP(1, c)                                          \
  }

__kernel void reduce_rows_partial(DECL_TENSOR3D(src), __global ACCUM_DTYPE* partial, int height,
                                  int rows, int splits, int run, long plane) {
  const int s = get_global_id(0);
  const int z = get_global_id(1);
  const int r0 = s * rows;
  const int r1 = min(height, r0 + rows);
  __global ACCUM_DTYPE* q = partial + ((long)z * splits + s) * run;
  __global const DTYPE* x0 = TENSOR3D_PTR(src, DTYPE, 0, r0, z);
  __global const DTYPE *x1 = x0, *x2 = x0, *x3 = x0;
  RP_COLUMNS(RP_FIRST)
  int r = r0 + 1;
  for (; r + 4 <= r1; r += 4) {
    x0 = TENSOR3D_PTR(src, DTYPE, 0, r, z);
    x1 = TENSOR3D_PTR(src, DTYPE, 0, r + 1, z);
    x2 = TENSOR3D_PTR(src, DTYPE, 0, r + 2, z);
    x3 = TENSOR3D_PTR(src, DTYPE, 0, r + 3, z);
    RP_COLUMNS(RP_ADD4)
  }
  /* The last rows, fewer than four, one at a time. */
  for (; r < r1; ++r) {
    x0 = TENSOR3D_PTR(src, DTYPE, 0, r, z);
    RP_COLUMNS(RP_ADD1)
  }
}
#endif

/* Pass two: item (column vector, z) merges the `splits` partials of its
 * columns and writes the result. */
__kernel void reduce_split_merge(__global const ACCUM_DTYPE* partial, DECL_TENSOR2D(dst),
                                 float based_coeff, float inv_reduction_size, int splits, int run,
                                 long plane, int mult_of_vector_size_x) {
  const int col = COLUMN_OFFSET();
  const int z = get_global_id(1);
  __global const ACCUM_DTYPE* p = partial + (long)z * splits * run + col;
  ACC_VEC acc = NERVA_LOADN(VEC_SIZE, p);
#ifdef ENABLE_REDUCE_VAR
  ACC_VEC acc2 = NERVA_LOADN(VEC_SIZE, p + plane);
#endif
  for (int s = 1; s < splits; ++s) {
    acc = COMBINE(acc, NERVA_LOADN(VEC_SIZE, p + (long)s * run));
#ifdef ENABLE_REDUCE_VAR
    acc2 += NERVA_LOADN(VEC_SIZE, p + plane + (long)s * run);
#endif
  }
  if (!COLUMN_STORES()) return;
  const DECL_VEC_TYPE(DTYPE_OUT, VEC_SIZE) res =
      CONVERT(DTYPE_OUT, VEC_SIZE, REDUCE_FINISH(VEC_SIZE, acc, ACC_SQUARES));
  VSTORE(DTYPE_OUT, VEC_SIZE, res, TENSOR2D_PTR(dst, DTYPE_OUT, col, z));
}

#else /* REDUCE_ON_COL, REDUCE_ON_3DY */
/* One item per vector of kept columns walks the `height` reduced rows of the
 * slice at column element `col`. Groups of BLOCK_SIZE items meet at a barrier
 * after every COLUMN_ROWS rows: where a group's items run one after the other
 * (CPU devices), they then take turns on the same rows while these are cached. */
#define COLUMN_ROWS 32
#define COLUMN_FOLD(rows_ptr)                                                  \
  ACC_DECL(VEC_SIZE);                                                        \
  for (int r0 = 0; r0 < height; r0 += COLUMN_ROWS) {                         \
    const int r1 = min(height, r0 + COLUMN_ROWS);                            \
    for (int r = r0; r < r1; ++r) ACC_ADD(LOAD_VEC(rows_ptr(r)));            \
    barrier(CLK_GLOBAL_MEM_FENCE);                                           \
  }                                                                          \
  const DECL_VEC_TYPE(DTYPE_OUT, VEC_SIZE) res =                             \
      CONVERT(DTYPE_OUT, VEC_SIZE, REDUCE_FINISH(VEC_SIZE, acc, ACC_SQUARES));

#if defined(REDUCE_ON_COL)
__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void reduce_on_col(DECL_TENSOR2D(src), DECL_TENSOR1D(dst), float based_coeff,
                            float inv_reduction_size, int height, int channel,
                            int mult_of_vector_size_x) {
  const int col = COLUMN_OFFSET();
#define ROW_PTR(r) TENSOR2D_PTR(src, DTYPE, col, r)
  COLUMN_FOLD(ROW_PTR)
  if (COLUMN_STORES()) VSTORE(DTYPE_OUT, VEC_SIZE, res, TENSOR1D_PTR(dst, DTYPE_OUT, col));
}
#else
/* y is the reduced axis of an (outer x reduced x inner) view; z the outer index. */
__kernel __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1))) void reduce_on_y(DECL_TENSOR3D(src), DECL_TENSOR2D(dst), float based_coeff,
                          float inv_reduction_size, int height, int channel,
                          int mult_of_vector_size_x) {
  const int col = COLUMN_OFFSET();
  const int z = get_global_id(1);
#define ROW_PTR(r) TENSOR3D_PTR(src, DTYPE, col, r, z)
  COLUMN_FOLD(ROW_PTR)
  if (COLUMN_STORES()) VSTORE(DTYPE_OUT, VEC_SIZE, res, TENSOR2D_PTR(dst, DTYPE_OUT, col, z));
}
#endif
#endif

#ifdef MAKE_CONTIGUOUS
/* Copies a strided tensor of up to 8 dimensions into contiguous memory, one
 * element of ELEM_SIZE bytes per work item; sizes and byte strides are given
 * outermost first. Every reduction kernel runs it on a non-contiguous input. */
#define GATHER_T NERVA_CAT(NERVA_GATHER_T_, ELEM_SIZE)
#define NERVA_GATHER_T_1 uchar
#define NERVA_GATHER_T_2 ushort
#define NERVA_GATHER_T_4 uint
#define NERVA_GATHER_T_8 ulong
__kernel void make_contiguous(__global const uchar* src, __global GATHER_T* dst, uint offset,
                              int rank, long8 sizes, long8 strides) {
  const long id = get_global_id(0);
  const long size[8] = {sizes.s0, sizes.s1, sizes.s2, sizes.s3,
                        sizes.s4, sizes.s5, sizes.s6, sizes.s7};
  const long stride[8] = {strides.s0, strides.s1, strides.s2, strides.s3,
                          strides.s4, strides.s5, strides.s6, strides.s7};
  long rest = id;
  long at = offset;
  for (int d = rank - 1; d >= 0; --d) {
    at += (rest % size[d]) * stride[d];
    rest /= size[d];
  }
  dst[id] = *(__global const GATHER_T*)(src + at);
}
#endif
