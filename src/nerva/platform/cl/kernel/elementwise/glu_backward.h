#pragma once

#include <memory>

#include "nerva/kernel/train_option.h"
#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

namespace nerva {
namespace cl {

// Gradient of torch.nn.functional.glu(input, dim) = a * sigmoid(b), where a and b are the
// first and second halves of input along dim ("GLUBackward", glu_backward.cl). With g the
// grad_output (input's shape with dim halved), grad_input's first half is sigmoid(b) * g
// and its second half (1 - sigmoid(b)) * sigmoid(b) * a * g. Floating-point types (half
// computes in float), any strides; grad_input has input's shape and may not overlap the
// inputs. One work item per element of grad_output writes both halves.
class GLUBackwardKernel : public KernelImpl {
 public:
  GLUBackwardKernel(const GLUBackwardOption& option, const TensorOption& grad_output_opt,
                    const Buffer& grad_output, const TensorOption& input_opt, const Buffer& input,
                    const TensorOption& grad_input_opt, Buffer& grad_input);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  // The halves of `t` along the split dimension.
  std::pair<Tensor, Tensor> Halves(const Tensor& t) const;
  int dim() const { return option_.dim < 0 ? option_.dim + rank() : option_.dim; }
  int rank() const { return static_cast<int>(input_.shape().ndim()); }

  GLUBackwardOption option_;
  Tensor grad_output_, input_, grad_input_;
};

}  // namespace cl
}  // namespace nerva
