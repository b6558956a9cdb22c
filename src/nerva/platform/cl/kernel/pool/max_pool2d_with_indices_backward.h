#pragma once

#include <memory>
#include <string>

#include "nerva/platform/cl/kernel/pool/maxpool2d.h"

namespace nerva {
namespace cl {

// Gradient of MaxPool2D / MaxPool3D from the forward's indices: grad_input
// (the forward input's shape, which sets the geometry) from grad_output and
// indices (the pooled shape; indices int64 or int32, flat per plane). Each
// input element gathers, in output order, the gradients of the outputs whose
// window holds it and whose index names it: overlapping windows add up
// deterministically without atomics. An index that does not name an element
// of its own window (never one the forward wrote) contributes nothing.
class MaxPoolBackwardKernel : public KernelImpl {
 public:
  MaxPoolBackwardKernel(std::string name, int spatial, WindowArgs window, Tensor grad_output,
                        Tensor indices, Tensor grad_input);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  int spatial_;
  WindowArgs window_;
  Tensor grad_output_, indices_, grad_input_;
};

// "MaxPool2DWithIndicesBackward" (program "max_pool2d_with_indices_backward.cl").
class MaxPool2DWithIndicesBackwardKernel : public MaxPoolBackwardKernel {
 public:
  MaxPool2DWithIndicesBackwardKernel(const MaxPool2DWithIndicesBackwardOption& option,
                                     const TensorOption& grad_output_opt, const Buffer& grad_output,
                                     const TensorOption& indices_opt, const Buffer& indices,
                                     const TensorOption& grad_input_opt, Buffer& grad_input);
};

}  // namespace cl
}  // namespace nerva
