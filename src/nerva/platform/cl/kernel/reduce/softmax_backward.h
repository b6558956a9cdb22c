#pragma once

#include <memory>
#include <string>

#include "nerva/kernel/train_option.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

// Gradient of softmax from its output y ("SoftmaxBackward"):
// grad_input = y * (grad_output - sum(grad_output * y)) along dim, in float.
// The innermost axis runs one group per row, any other axis one item per
// vector of inner columns.
class SoftmaxBackwardKernel : public KernelImpl {
 public:
  SoftmaxBackwardKernel(const SoftmaxBackwardOption& option, const TensorOption& grad_output,
                        const Buffer& grad_output_buf, const TensorOption& output,
                        const Buffer& output_buf, const TensorOption& grad_input,
                        Buffer& grad_input_buf);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 protected:
  // Another gradient of the same shape: kernel-name stem and the program
  // listed ahead of "softmax_backward.cl" ("" for none).
  SoftmaxBackwardKernel(std::string name, std::string prefix, std::string program, int dim,
                        const Tensor& grad_output, const Tensor& output, const Tensor& grad_input);

 private:
  std::string prefix_;
  std::string program_;
  int dim_;
  Tensor grad_output_;
  Tensor output_;
  Tensor grad_input_;
};

}  // namespace cl
}  // namespace nerva
