#pragma once

#include "nerva/kernel/reduce_option.h"
#include "nerva/platform/cl/kernel/reduce/argmax.h"

namespace nerva {
namespace cl {

// torch.argmin(input, dim, keepdim) ("ArgMin"), ties to the later index.
class ArgMinKernel : public ArgReduceKernel {
 public:
  ArgMinKernel(const ArgMinOption& option, const TensorOption& input, const Buffer& input_buf,
               const TensorOption& output, Buffer& output_buf);
};

}  // namespace cl
}  // namespace nerva
