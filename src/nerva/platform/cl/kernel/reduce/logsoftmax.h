#pragma once

#include "nerva/kernel/nn.h"
#include "nerva/platform/cl/kernel/reduce/softmax.h"

namespace nerva {
namespace cl {

// torch.log_softmax(input, dim) ("LogSoftmax"): the softmax passes with
// x - max - log(sum) as the result ("logsoftmax.cl" ahead of "softmax.cl").
class LogSoftmaxKernel : public SoftmaxKernel {
 public:
  LogSoftmaxKernel(const LogSoftmaxOption& option, const TensorOption& input,
                   const Buffer& input_buf, const TensorOption& output, Buffer& output_buf);
};

}  // namespace cl
}  // namespace nerva
