#pragma once

#include <memory>
#include <string>

#include "nerva/platform/cl/kernel/pool/avgpool2d.h"

namespace nerva {
namespace cl {

// Gradient of AvgPool2D / AvgPool3D: grad_input (the forward input's shape,
// which sets the geometry) from grad_output (the pooled shape). Each input
// element sums grad_output / divisor over the windows that cover it, in
// output order, so overlapping windows add up deterministically.
class AvgPoolBackwardKernel : public KernelImpl {
 public:
  AvgPoolBackwardKernel(std::string name, int spatial, AvgArgs args, Tensor grad_output,
                        Tensor grad_input);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  int spatial_;
  AvgArgs args_;
  Tensor grad_output_, grad_input_;
};

// "AvgPool2DBackward" (program "avgpool2d_backward.cl").
class AvgPool2DBackwardKernel : public AvgPoolBackwardKernel {
 public:
  AvgPool2DBackwardKernel(const AvgPool2DBackwardOption& option,
                          const TensorOption& grad_output_opt, const Buffer& grad_output,
                          const TensorOption& grad_input_opt, Buffer& grad_input);
};

// The forward's output sizes for a gradient: a mismatch with `grad_output`
// throws std::runtime_error naming the dimension, as torch's check does.
void CheckGradOutput(const std::string& op, const Tensor& grad_output,
                     const std::vector<long>& expected);

}  // namespace cl
}  // namespace nerva
