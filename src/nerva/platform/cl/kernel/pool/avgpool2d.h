#pragma once

#include <memory>
#include <string>

#include "nerva/kernel/pool_option.h"
#include "nerva/platform/cl/kernel/pool/pool_frame.h"

namespace nerva {
namespace cl {

// The averaging parameters of torch avg_pool2d / avg_pool3d.
struct AvgArgs {
  WindowArgs window;  // dilation is always 1
  bool count_include_pad = true;
  long divisor_override = 0;  // the divisor when nonzero
};
AvgArgs AvgPoolArgs(const std::string& op, const AvgPool2DOption& option);
AvgArgs AvgPoolArgs(const std::string& op, const AvgPool3DOption& option);

// torch avg_pool2d / avg_pool3d over the 2 or 3 trailing dimensions of an
// (N, C, ...) or (C, ...) float or half input. A window covers
// [o * stride - pad, min(o * stride - pad + kernel, in + pad)); its divisor is
// divisor_override when nonzero, else the window's size with padding
// (count_include_pad) or without. Sums run in float. The output is
// contiguous, of the pooled shape.
class AvgPoolKernel : public KernelImpl {
 public:
  AvgPoolKernel(std::string name, int spatial, AvgArgs args, Tensor input, Tensor output);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  int spatial_;
  AvgArgs args_;
  Tensor input_, output_;
};

// "AvgPool2D" (program "avgpool2d.cl").
class AvgPool2DKernel : public AvgPoolKernel {
 public:
  AvgPool2DKernel(const AvgPool2DOption& option, const TensorOption& input_opt, const Buffer& input,
                  const TensorOption& out_opt, Buffer& out);
};

}  // namespace cl
}  // namespace nerva
