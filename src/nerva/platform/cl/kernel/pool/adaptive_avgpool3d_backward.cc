#include "nerva/platform/cl/kernel/pool/adaptive_avgpool3d_backward.h"

#include "nerva/platform/cl/module.h"

namespace nerva {
namespace cl {

AdaptiveAvgPool3DBackwardKernel::AdaptiveAvgPool3DBackwardKernel(
    const TensorOption& grad_output_opt, const Buffer& grad_output,
    const TensorOption& grad_input_opt, Buffer& grad_input)
    : AdaptiveAvgPoolBackwardKernel("AdaptiveAvgPool3DBackward", 3,
                                    Tensor(grad_output_opt, grad_output, 0),
                                    Tensor(grad_input_opt, grad_input, 0)) {}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<AdaptiveAvgPool3DBackwardKernel, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("AdaptiveAvgPool3DBackward");
};

}  // namespace cl
}  // namespace nerva
