#include "nerva/platform/cl/kernel/pool/avgpool3d_backward.h"

#include "nerva/platform/cl/module.h"

namespace nerva {
namespace cl {

AvgPool3DBackwardKernel::AvgPool3DBackwardKernel(const AvgPool3DBackwardOption& option,
                                                 const TensorOption& grad_output_opt,
                                                 const Buffer& grad_output,
                                                 const TensorOption& grad_input_opt,
                                                 Buffer& grad_input)
    : AvgPoolBackwardKernel("AvgPool3DBackward", 3, AvgPoolArgs("AvgPool3DBackward", option),
                            Tensor(grad_output_opt, grad_output, 0),
                            Tensor(grad_input_opt, grad_input, 0)) {}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<AvgPool3DBackwardKernel, const AvgPool3DBackwardOption&, const TensorOption&,
                 const Buffer&, const TensorOption&, Buffer&>("AvgPool3DBackward");
};

}  // namespace cl
}  // namespace nerva
