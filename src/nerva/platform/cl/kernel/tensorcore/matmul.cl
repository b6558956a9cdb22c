/*
 * Batched matrix product on the tensor unit: out = mat1 x mat2.
 */
// #include "tc_common.h"
#pragma OPENCL EXTENSION cl_nrv_tensorcore : enable
#include "cl_nrv_tc_ext.h"
#include "cl_nrv_tc_lib.h"

#ifndef DIM_M
#error: Missing DIM_M
#endif
#ifndef DIM_N
#error: Missing DIM_N
#endif
#ifndef DIM_K
#error: Missing DIM_K
#endif
#ifndef MAT1_DTYPE
#error: Missing MAT1_DTYPE
#endif
#ifndef MAT2_DTYPE
#error: Missing MAT2_DTYPE
#endif
#ifndef OUT_DTYPE
#error: Missing OUT_DTYPE
#endif
#ifndef MAT1_DTYPE_SIZE
#error: Missing MAT1_DTYPE_SIZE
#endif
#ifndef MAT2_DTYPE_SIZE
#error: Missing MAT2_DTYPE_SIZE
#endif
#ifndef OUT_DTYPE_SIZE
#error: Missing OUT_DTYPE_SIZE
#endif

#ifndef HAS_2ND_INPUT
#define HAS_2ND_INPUT 0
#endif
#ifndef TRANSPOSE_A
#define TRANSPOSE_A false
#endif
#ifndef MAT1_ZERO_POINT
#define MAT1_ZERO_POINT 0
#endif
#ifndef MAT2_ZERO_POINT
#define MAT2_ZERO_POINT 0
#endif
#ifndef MAT1_STRIDE_Z
#define MAT1_STRIDE_Z DIM_K
#endif
#ifndef MAT1_STRIDE_W
#define MAT1_STRIDE_W 1
#endif
#ifndef MAT2_STRIDE_Z
#define MAT2_STRIDE_Z DIM_N
#endif
#ifndef MAT2_STRIDE_W
#define MAT2_STRIDE_W 1
#endif
#ifndef MAT1_OFFSET
#define MAT1_OFFSET 0
#endif
#ifndef MAT2_OFFSET
#define MAT2_OFFSET 0
#endif
#ifndef OUT_OFFSET
#define OUT_OFFSET 0
#endif
#ifndef TILE_M
#define TILE_M DIM_M
#endif
#ifndef TILE_N
#define TILE_N DIM_N
#endif
#ifndef OUT_STRIDE_Z
#define OUT_STRIDE_Z (DIM_M * DIM_N)
#endif
#ifndef DTYPE
#define DTYPE MAT1_DTYPE
#endif

/* Batch strides (MAT*_STRIDE_Z, OUT_STRIDE_Z) and offsets count elements. */
TC_KERNEL_ATTRIBUTES
__kernel void matmul_tensorcore(__global char* mat1, __global char* mat2, __global char* out,
                                int mult_of_vector_size) {
  const int y = get_global_id(1);
  const int b = get_global_id(2);
  __global char* a_ptr = mat1 + (MAT1_OFFSET + (long)b * MAT1_STRIDE_Z) * MAT1_DTYPE_SIZE;
  __global char* b_ptr = mat2 + (MAT2_OFFSET + (long)b * MAT2_STRIDE_Z) * MAT2_DTYPE_SIZE;
  __global char* o_ptr = out + (OUT_OFFSET + (long)b * OUT_STRIDE_Z) * OUT_DTYPE_SIZE;
  bool transpose_a = TRANSPOSE_A;
  tc_fragment_handle_t a;
#if TRANSPOSE_A
#ifdef ENABLE_TILE_M
  a_ptr += y * TILE_M * MAT1_DTYPE_SIZE;
#endif
  a = TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(MAT1_DTYPE), DIM_K, TILE_M,
                          DIM_M * MAT1_DTYPE_SIZE, a_ptr);
#else
#ifdef ENABLE_TILE_M
  a_ptr += (long)y * TILE_M * DIM_K * MAT1_DTYPE_SIZE;
#endif
#ifdef ENABLE_AB2ATB_OPT
  /* Transpose the TILE_M x DIM_K block into local memory, four rows at a time. */
  __local TC_BITS_TYPE(MAT1_DTYPE_SIZE) a_local[TC_ALIGN_UP(TILE_M * DIM_K * MAT1_DTYPE_SIZE,
                                                            LS_ALIGN_SIZE) /
                                               MAT1_DTYPE_SIZE]
      __attribute__((aligned(LS_ALIGN_SIZE)));
  __global TC_BITS_TYPE(MAT1_DTYPE_SIZE)* a_bits = (__global TC_BITS_TYPE(MAT1_DTYPE_SIZE)*)a_ptr;
  for (int i = get_local_id(0); i < (TILE_M / 4) * mult_of_vector_size; i += BLOCK_SIZE) {
    const int r = (i / mult_of_vector_size) * 4, k = (i % mult_of_vector_size) * 4;
    const TC_BITS_VEC4(MAT1_DTYPE_SIZE) r0 = vload4(0, a_bits + (r + 0) * DIM_K + k);
    const TC_BITS_VEC4(MAT1_DTYPE_SIZE) r1 = vload4(0, a_bits + (r + 1) * DIM_K + k);
    const TC_BITS_VEC4(MAT1_DTYPE_SIZE) r2 = vload4(0, a_bits + (r + 2) * DIM_K + k);
    const TC_BITS_VEC4(MAT1_DTYPE_SIZE) r3 = vload4(0, a_bits + (r + 3) * DIM_K + k);
    /* 2 x 2 blocks of pairs: rows (0, 1) and (2, 3) against columns (0, 1) and (2, 3). */
    const TC_BITS_VEC4(MAT1_DTYPE_SIZE) p01 = (TC_BITS_VEC4(MAT1_DTYPE_SIZE))(r0.s01, r1.s01);
    const TC_BITS_VEC4(MAT1_DTYPE_SIZE) p23 = (TC_BITS_VEC4(MAT1_DTYPE_SIZE))(r2.s01, r3.s01);
    const TC_BITS_VEC4(MAT1_DTYPE_SIZE) q01 = (TC_BITS_VEC4(MAT1_DTYPE_SIZE))(r0.s23, r1.s23);
    const TC_BITS_VEC4(MAT1_DTYPE_SIZE) q23 = (TC_BITS_VEC4(MAT1_DTYPE_SIZE))(r2.s23, r3.s23);
    vstore4((TC_BITS_VEC4(MAT1_DTYPE_SIZE))(p01.s02, p23.s02), 0, a_local + (k + 0) * TILE_M + r);
    vstore4((TC_BITS_VEC4(MAT1_DTYPE_SIZE))(p01.s13, p23.s13), 0, a_local + (k + 1) * TILE_M + r);
    vstore4((TC_BITS_VEC4(MAT1_DTYPE_SIZE))(q01.s02, q23.s02), 0, a_local + (k + 2) * TILE_M + r);
    vstore4((TC_BITS_VEC4(MAT1_DTYPE_SIZE))(q01.s13, q23.s13), 0, a_local + (k + 3) * TILE_M + r);
  }
  barrier(CLK_LOCAL_MEM_FENCE);
  a = TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_LOCAL, TC_DTYPE_OF(MAT1_DTYPE), DIM_K, TILE_M,
                          TILE_M * MAT1_DTYPE_SIZE, a_local);
  transpose_a = true;
#else
  a = TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(MAT1_DTYPE), TILE_M, DIM_K,
                          DIM_K * MAT1_DTYPE_SIZE, a_ptr);
#endif
#endif
#ifdef ENABLE_TILE_N
  b_ptr += y * TILE_N * MAT2_DTYPE_SIZE;
#endif
  tc_fragment_handle_t b_frag = TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(MAT2_DTYPE),
                                                    DIM_K, TILE_N, DIM_N * MAT2_DTYPE_SIZE, b_ptr);
#if defined(ENABLE_TILE_M)
  o_ptr += (long)y * TILE_N * TILE_M * OUT_DTYPE_SIZE;
#elif defined(ENABLE_TILE_N)
  o_ptr += y * TILE_N * OUT_DTYPE_SIZE;
#endif
  tc_fragment_handle_t o = TC_WRAP_FRAGMENT_2D(TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(OUT_DTYPE), TILE_M,
                                               TILE_N, DIM_N * OUT_DTYPE_SIZE, o_ptr);
  tc_fusion_data_t fusion = {0};
  TC_FUSION_VERSION(fusion, 1);
#if defined(FUSE_RELU) && FUSE_RELU
  TC_FUSION_RELU_1(fusion);
#endif
#if defined(FUSE_RESCALE) && FUSE_RESCALE
  TC_FUSION_RESCALE(fusion, FUSE_RESCALE_MUL, FUSE_RESCALE_OUT_SHIFT);
#endif
  TC_CALL_AND_WAIT(tc_matmul(a, b_frag, transpose_a, false, MAT1_ZERO_POINT, MAT2_ZERO_POINT,
                             fusion, o, TC_EVENT));
}
