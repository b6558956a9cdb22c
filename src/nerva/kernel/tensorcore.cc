#include "nerva/kernel/tensorcore.h"

#include <stdexcept>

namespace nerva {

Kernel EncodedConv2D::Create(const std::shared_ptr<IQueueImpl>& queue,
                             const EncodedConv2DOption& option, const TensorOption& input_opt,
                             const Buffer& input, const TensorOption& coef_opt, const Buffer& coef,
                             const TensorOption& input2_opt, const Buffer& input2,
                             const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("EncodedConv2DSecondInput", option, input_opt, input, coef_opt, coef,
                             input2_opt, input2, out_opt, out);
}

Kernel EncodedConv2D::Create(const std::shared_ptr<IQueueImpl>& queue,
                             const EncodedConv2DOption& option, const TensorOption& input_opt,
                             const Buffer& input, const TensorOption& coef_opt, const Buffer& coef,
                             const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("EncodedConv2D", option, input_opt, input, coef_opt, coef, out_opt,
                             out);
}

Kernel EncodedMatMul::Create(const std::shared_ptr<IQueueImpl>& queue,
                             const EncodedMatMulOption& option, const TensorOption& input_opt,
                             const Buffer& input, const TensorOption& coef_opt, const Buffer& coef,
                             const TensorOption& offset_opt, const Buffer& offset,
                             const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("EncodedMatMul", option, input_opt, input, coef_opt, coef, offset_opt,
                             offset, out_opt, out);
}

void EncodedConv2D::FuseInputZpToBias(int input_zp, const int8_t* weight, const Shape& weight_shape,
                                      const int32_t* bias, int32_t* new_bias) {
  if (weight == nullptr) {
    throw std::invalid_argument("Fuse input zp to bias fail, weights is null.");
  }
  if (bias == nullptr) throw std::invalid_argument("Fuse input zp to bias fail, bias is null.");
  if (new_bias == nullptr) {
    throw std::invalid_argument("Fuse input zp to bias fail, new_bias is null.");
  }
  const long out_channels = weight_shape.empty() ? 0 : weight_shape[0];
  if (out_channels <= 0) return;
  const long k = weight_shape.size() / out_channels;
  // Unsigned arithmetic gives the 32-bit wrap-around without overflow.
  for (long o = 0; o < out_channels; ++o) {
    uint32_t sum = static_cast<uint32_t>(bias[o]) - static_cast<uint32_t>(k);
    for (long i = 0; i < k; ++i)
      sum += static_cast<uint32_t>(static_cast<int32_t>(weight[o * k + i]));
    const uint32_t delta = static_cast<uint32_t>(input_zp) * sum;
    new_bias[o] = static_cast<int32_t>(static_cast<uint32_t>(new_bias[o]) - delta);
  }
}

}  // namespace nerva
