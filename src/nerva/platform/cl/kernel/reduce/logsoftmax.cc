#include "nerva/platform/cl/kernel/reduce/logsoftmax.h"

#include "nerva/platform/cl/module.h"

namespace nerva {
namespace cl {

LogSoftmaxKernel::LogSoftmaxKernel(const LogSoftmaxOption& option, const TensorOption& input,
                                   const Buffer& input_buf, const TensorOption& output,
                                   Buffer& output_buf)
    : SoftmaxKernel("LogSoftmax", "logsoftmax", "logsoftmax.cl", option.dim,
                    Tensor(input, input_buf, 0), Tensor(output, output_buf, 0)) {}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<LogSoftmaxKernel, const LogSoftmaxOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("LogSoftmax");
};

}  // namespace cl
}  // namespace nerva
