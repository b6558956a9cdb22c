#pragma once

// Quantised 2-D convolution on the tensor unit with an encoded coefficient and the
// fused stages of EncodedConv2DOption ("EncodedConv2D"; with a second input for the
// add and mul stages, "EncodedConv2DSecondInput"). Device program "tensorcore/conv2d.cl".
//
// Operands (contiguous):
// - input: (C, H, W) or (B, C, H, W); (.., H, W, C) when trans_input_layout is set.
//   int8, uint8, int16 or uint16.
// - coefficient: the option describes the weights (OC, C, KH, KW), int8 or uint8; the
//   buffer holds the encoded coefficient: the weights, from the next multiple of 4 bytes
//   OC int32 biases, then int32 tables of the engaged stages in stage order (PReLU: OC
//   slopes, LUT: 256 entries, per-channel rescale: OC multipliers).
// - second input: (C2, H2, W2) or (B, C2, H2, W2), same batch as the input; integer.
// - output: the final shape after max-pooling and depth-to-space, same batch as the input;
//   int8, uint8, int16, uint16 or int32 (saturated).
// The convolution has stride `stride`, zero-based padding of pad_value, and the input
// zero point input_zero_point. The float parameters of the stages become integer
// constants as tc_frame.h describes; FuseAdd's flag adds a ReLU (the lower bound is
// raised to 0). FuseClamp is accepted and has no effect on the device. Creation fails on
// a device without cl_nrv_tensorcore.

#include <memory>

#include "nerva/kernel/quantize.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/tensor_option.h"

namespace nerva {
namespace cl {

class EncodedConv2DKernel : public KernelImpl {
 public:
  EncodedConv2DKernel(const EncodedConv2DOption& option, const TensorOption& input_opt,
                      const Buffer& input, const TensorOption& coef_opt, const Buffer& coef,
                      const TensorOption& out_opt, Buffer& out);
  EncodedConv2DKernel(const EncodedConv2DOption& option, const TensorOption& input_opt,
                      const Buffer& input, const TensorOption& coef_opt, const Buffer& coef,
                      const TensorOption& input2_opt, const Buffer& input2,
                      const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  struct Geometry {
    long batch, in_c, in_h, in_w, out_c, k_h, k_w;
    long conv_h, conv_w;             // the convolution's own output
    long final_c, final_h, final_w;  // after pooling and depth-to-space
    long coef_bytes;                 // encoded bytes the device reads
  };
  Geometry Measure() const;
  void AddStages(BuildOption& options) const;

  EncodedConv2DOption option_;
  TensorOption input_opt_, coef_opt_, input2_opt_, out_opt_;
  Buffer input_, coef_, input2_, out_;
  bool has_input2_;
};

}  // namespace cl
}  // namespace nerva
