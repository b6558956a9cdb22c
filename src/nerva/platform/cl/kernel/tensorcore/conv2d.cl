/*
 * Quantised 2-D convolution with an encoded coefficient and fused stages.
 */
// #include "tc_common.h"
#pragma OPENCL EXTENSION cl_nrv_tensorcore : enable
#include "cl_nrv_tc_ext.h"
#include "cl_nrv_tc_lib.h"

#ifndef IN_CHANNEL
#error: Missing IN_CHANNEL
#endif
#ifndef IN_HEIGHT
#error: Missing IN_HEIGHT
#endif
#ifndef IN_WIDTH
#error: Missing IN_WIDTH
#endif
#ifndef OUT_CHANNEL
#error: Missing OUT_CHANNEL
#endif
#ifndef OUT_HEIGHT
#error: Missing OUT_HEIGHT
#endif
#ifndef OUT_WIDTH
#error: Missing OUT_WIDTH
#endif
#ifndef K_HEIGHT
#error: Missing K_HEIGHT
#endif
#ifndef K_WIDTH
#error: Missing K_WIDTH
#endif
#ifndef IN_DTYPE
#error: Missing IN_DTYPE
#endif
#ifndef COEF_DTYPE
#error: Missing COEF_DTYPE
#endif
#ifndef OUT_DTYPE
#error: Missing OUT_DTYPE
#endif
#ifndef IN_DTYPE_SIZE
#error: Missing IN_DTYPE_SIZE
#endif
#ifndef COEF_DTYPE_SIZE
#error: Missing COEF_DTYPE_SIZE
#endif
#ifndef OUT_DTYPE_SIZE
#error: Missing OUT_DTYPE_SIZE
#endif
#ifndef STRIDE
#error: Missing STRIDE
#endif
#ifndef PAD_TOP
#error: Missing PAD_TOP
#endif
#ifndef PAD_BOTTOM
#error: Missing PAD_BOTTOM
#endif
#ifndef PAD_LEFT
#error: Missing PAD_LEFT
#endif
#ifndef PAD_RIGHT
#error: Missing PAD_RIGHT
#endif

#ifndef HAS_2ND_INPUT
#define HAS_2ND_INPUT 0
#endif
#ifndef IN_ZERO_POINT
#define IN_ZERO_POINT 0
#endif
#ifndef PAD_MODE
#define PAD_MODE TC_PAD_MODE_CONST
#endif
#ifndef PAD_CONST
#define PAD_CONST 0
#endif
/* Output channels of the convolution itself (before depth-to-space). */
#ifndef COEF_CHANNEL
#define COEF_CHANNEL OUT_CHANNEL
#endif

#if HAS_2ND_INPUT
#ifndef IN2_CHANNEL
#error: Missing IN2_CHANNEL
#endif
#ifndef IN2_HEIGHT
#error: Missing IN2_HEIGHT
#endif
#ifndef IN2_WIDTH
#error: Missing IN2_WIDTH
#endif
#ifndef IN2_DTYPE
#error: Missing IN2_DTYPE
#endif
#ifndef IN2_DTYPE_SIZE
#error: Missing IN2_DTYPE_SIZE
#endif
#endif

/* With IN_STRIDE (and OUT_STRIDE, IN2_STRIDE: bytes), work-item x runs image x. */
TC_KERNEL_ATTRIBUTES
__kernel void EncodedConv2D(__global char* in, __global char* coef,
#if HAS_2ND_INPUT
                            __global char* in2,
#endif
                            __global char* out) {
#ifdef IN_STRIDE
  in += (long)get_global_id(0) * IN_STRIDE;
  out += (long)get_global_id(0) * OUT_STRIDE;
#if HAS_2ND_INPUT && defined(IN2_STRIDE)
  in2 += (long)get_global_id(0) * IN2_STRIDE;
#endif
#endif
  const tc_fragment_handle_t in_frag =
      TC_WRAP_FRAGMENT_3D(TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(IN_DTYPE), IN_CHANNEL, IN_HEIGHT,
                          IN_WIDTH, IN_HEIGHT * IN_WIDTH * IN_DTYPE_SIZE, IN_WIDTH * IN_DTYPE_SIZE, in);
  const tc_fragment_handle_t coef_frag = TC_WRAP_FRAGMENT_4D(
      TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(COEF_DTYPE), COEF_CHANNEL, IN_CHANNEL, K_HEIGHT, K_WIDTH,
      IN_CHANNEL * K_HEIGHT * K_WIDTH * COEF_DTYPE_SIZE, K_HEIGHT * K_WIDTH * COEF_DTYPE_SIZE,
      K_WIDTH * COEF_DTYPE_SIZE, coef);
  const tc_fragment_handle_t out_frag = TC_WRAP_FRAGMENT_3D(
      TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(OUT_DTYPE), OUT_CHANNEL, OUT_HEIGHT, OUT_WIDTH,
      OUT_HEIGHT * OUT_WIDTH * OUT_DTYPE_SIZE, OUT_WIDTH * OUT_DTYPE_SIZE, out);
#if HAS_2ND_INPUT
  const tc_fragment_handle_t in2_frag = TC_WRAP_FRAGMENT_3D(
      TC_SPACE_SPEC_GLOBAL, TC_DTYPE_OF(IN2_DTYPE), IN2_CHANNEL, IN2_HEIGHT, IN2_WIDTH,
      IN2_HEIGHT * IN2_WIDTH * IN2_DTYPE_SIZE, IN2_WIDTH * IN2_DTYPE_SIZE, in2);
#else
  const tc_fragment_handle_t in2_frag = TC_EMPTY_FRAGMENT;
#endif
  tc_fusion_data_t fusion = {0};
  TC_FUSION_VERSION(fusion, 1);
#if defined(FUSE_TRANS_INPUT_LAYOUT) && FUSE_TRANS_INPUT_LAYOUT
  TC_FUSION_TRANSPOSE_INPUT_LAYOUT(fusion);
#endif
#if defined(FUSE_RELU_1) && FUSE_RELU_1
  TC_FUSION_RELU_1(fusion);
#endif
#if defined(FUSE_MAX_POOL2D) && FUSE_MAX_POOL2D
  TC_FUSION_MAX_POOLING_2D(fusion, FUSE_MAX_POOL2D_KSIZE, FUSE_MAX_POOL2D_STRIDE);
#endif
#if 0 /* FUSE_CLAMP: the clamp stage stays disabled (FUSE_CLAMP_MIN, FUSE_CLAMP_MAX). */
  TC_FUSION_CLAMP(fusion, FUSE_CLAMP_MIN, FUSE_CLAMP_MAX);
#endif
#if defined(FUSE_MUL) && FUSE_MUL
  TC_FUSION_MUL(fusion, FUSE_MUL_X1_MUL, FUSE_MUL_X2_SHIFT, FUSE_MUL_MIN, FUSE_MUL_MAX);
#endif
#if defined(FUSE_LUT) && FUSE_LUT
  TC_FUSION_LUT(fusion);
#endif
#if defined(FUSE_STREAM_PROCESSOR) && FUSE_STREAM_PROCESSOR
  TC_FUSION_STREAM_PROCESSOR(fusion);
#endif
#if defined(FUSE_ADD) && FUSE_ADD
  TC_FUSION_ADD(fusion, FUSE_ADD_A, FUSE_ADD_B, FUSE_ADD_C, FUSE_ADD_MIN, FUSE_ADD_MAX);
#endif
#if defined(FUSE_PRELU) && FUSE_PRELU
  TC_FUSION_PRELU(fusion, FUSE_PRELU_MIN, FUSE_PRELU_MAX);
#endif
#if defined(FUSE_LEAKY_RELU) && FUSE_LEAKY_RELU
  TC_FUSION_LEAKY_RELU(fusion, FUSE_LEAKY_RELU_POS_MUL, FUSE_LEAKY_RELU_NEG_MUL,
                       FUSE_LEAKY_RELU_MIN, FUSE_LEAKY_RELU_MAX);
#endif
#if defined(FUSE_RELU_2) && FUSE_RELU_2
  TC_FUSION_RELU_2(fusion);
#endif
#if defined(FUSE_D2S) && FUSE_D2S
  TC_FUSION_DEPTH2SPACE(fusion, FUSE_D2S_H, FUSE_D2S_W);
#endif
#if defined(FUSE_RESCALE) && FUSE_RESCALE
  TC_FUSION_RESCALE(fusion, FUSE_RESCALE_MUL, FUSE_RESCALE_OUT_SHIFT);
#endif
#if defined(FUSE_RESCALE_PCQ) && FUSE_RESCALE_PCQ
  TC_FUSION_RESCALE_PCQ(fusion, FUSE_RESCALE_PCQ_OUT_SHIFT);
#endif
  TC_CALL_AND_WAIT(tc_conv2d(in_frag, coef_frag, STRIDE,
                             (int4)(PAD_TOP, PAD_BOTTOM, PAD_LEFT, PAD_RIGHT), PAD_MODE, PAD_CONST,
                             IN_ZERO_POINT, 1, TC_CACHE_MODE_NONE, fusion, in2_frag, out_frag,
                             TC_EVENT));
}
