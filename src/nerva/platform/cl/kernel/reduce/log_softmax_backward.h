#pragma once

#include "nerva/platform/cl/kernel/reduce/softmax_backward.h"

namespace nerva {
namespace cl {

// Gradient of log-softmax from its output y ("LogSoftmaxBackward"):
// grad_input = grad_output - exp(y) * sum(grad_output) along dim.
class LogSoftmaxBackwardKernel : public SoftmaxBackwardKernel {
 public:
  LogSoftmaxBackwardKernel(const LogSoftmaxBackwardOption& option, const TensorOption& grad_output,
                           const Buffer& grad_output_buf, const TensorOption& output,
                           const Buffer& output_buf, const TensorOption& grad_input,
                           Buffer& grad_input_buf);
};

}  // namespace cl
}  // namespace nerva
