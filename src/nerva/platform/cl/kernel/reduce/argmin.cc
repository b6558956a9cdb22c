#include "nerva/platform/cl/kernel/reduce/argmin.h"

#include "nerva/platform/cl/module.h"

namespace nerva {
namespace cl {

ArgMinKernel::ArgMinKernel(const ArgMinOption& option, const TensorOption& input,
                           const Buffer& input_buf, const TensorOption& output, Buffer& output_buf)
    : ArgReduceKernel("ArgMin", MakeProgram("ArgMin", "argmin.cl", "argmin_x", "argmin"),
                      option.dim, option.keepdim, Tensor(input, input_buf, 0),
                      Tensor(output, output_buf, 0), Tensor()) {}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<ArgMinKernel, const ArgMinOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("ArgMin");
};

}  // namespace cl
}  // namespace nerva
