#pragma once

// Front-ends of the tensor-core operators that run on encoded coefficients (weights and
// bias prepared once, in a device-specific layout, ahead of execution).

#include <cstdint>
#include <memory>
#include <vector>

#include "nerva/buffer.h"
#include "nerva/kernel.h"
#include "nerva/queue.h"
#include "nerva/shape.h"
#include "nerva/tensor_option.h"

#include "nerva/kernel/quantize.h"

namespace nerva {

// Quantised 2-D convolution with an encoded coefficient (weights and bias) and fused stages.
// "EncodedConv2DSecondInput": with a second input tensor for the fused add stage.
class EncodedConv2D {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const EncodedConv2DOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& coef_opt, const Buffer& coef,
                       const TensorOption& input2_opt, const Buffer& input2,
                       const TensorOption& out_opt, Buffer& out);
  // "EncodedConv2D": input and encoded coefficient only.
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const EncodedConv2DOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& coef_opt, const Buffer& coef,
                       const TensorOption& out_opt, Buffer& out);

  // Folds the input zero point into the bias: for each output channel o (OC = the first
  // weight dimension, K = the weight's elements per channel),
  //   new_bias[o] -= input_zp * (bias[o] - K + sum_k weight[o * K + k])
  // in 32-bit wrap-around arithmetic. new_bias is read as well as written, so the caller
  // initialises it. Throws std::invalid_argument on a null pointer.
  static void FuseInputZpToBias(int input_zp, const int8_t* weight, const Shape& weight_shape,
                                const int32_t* bias, int32_t* new_bias);
};

// Quantised matrix product with an encoded coefficient; offset holds the byte offsets of the
// coefficient's K blocks.
class EncodedMatMul {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const EncodedMatMulOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& coef_opt, const Buffer& coef,
                       const TensorOption& offset_opt, const Buffer& offset,
                       const TensorOption& out_opt, Buffer& out);
};

}  // namespace nerva
