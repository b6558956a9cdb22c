#pragma once

#include <memory>
#include <string>

#include "nerva/platform/cl/kernel/pool/pool_frame.h"

namespace nerva {
namespace cl {

// Gradient of AdaptiveAvgPool2D / AdaptiveAvgPool3D: grad_input (the forward
// input's shape) from grad_output (the forward output's shape, same leading
// sizes). Each input element gathers grad_output / window size over the
// windows that cover it, in output order.
class AdaptiveAvgPoolBackwardKernel : public KernelImpl {
 public:
  AdaptiveAvgPoolBackwardKernel(std::string name, int spatial, Tensor grad_output,
                                Tensor grad_input);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  int spatial_;
  Tensor grad_output_, grad_input_;
};

// "AdaptiveAvgPool2DBackward" (program "adaptive_avgpool2d_backward.cl").
class AdaptiveAvgPool2DBackwardKernel : public AdaptiveAvgPoolBackwardKernel {
 public:
  AdaptiveAvgPool2DBackwardKernel(const TensorOption& grad_output_opt, const Buffer& grad_output,
                                  const TensorOption& grad_input_opt, Buffer& grad_input);
};

}  // namespace cl
}  // namespace nerva
