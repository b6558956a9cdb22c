#include "nerva/platform/cl/kernel/reduce/log_softmax_backward.h"

#include "nerva/platform/cl/module.h"

namespace nerva {
namespace cl {

LogSoftmaxBackwardKernel::LogSoftmaxBackwardKernel(
    const LogSoftmaxBackwardOption& option, const TensorOption& grad_output,
    const Buffer& grad_output_buf, const TensorOption& output, const Buffer& output_buf,
    const TensorOption& grad_input, Buffer& grad_input_buf)
    : SoftmaxBackwardKernel("LogSoftmaxBackward", "log_softmax_backward", "log_softmax_backward.cl",
                            option.dim, Tensor(grad_output, grad_output_buf, 0),
                            Tensor(output, output_buf, 0), Tensor(grad_input, grad_input_buf, 0)) {}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<LogSoftmaxBackwardKernel, const LogSoftmaxBackwardOption&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&, const TensorOption&, Buffer&>(
          "LogSoftmaxBackward");
};

}  // namespace cl
}  // namespace nerva
