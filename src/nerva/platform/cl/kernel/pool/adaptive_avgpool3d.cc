#include "nerva/platform/cl/kernel/pool/adaptive_avgpool3d.h"

#include "nerva/platform/cl/module.h"

namespace nerva {
namespace cl {

AdaptiveAvgPool3DKernel::AdaptiveAvgPool3DKernel(const TensorOption& input_opt, const Buffer& input,
                                                 const TensorOption& out_opt, Buffer& out)
    : AdaptiveAvgPoolKernel("AdaptiveAvgPool3D", 3, Tensor(input_opt, input, 0),
                            Tensor(out_opt, out, 0)) {}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<AdaptiveAvgPool3DKernel, const TensorOption&, const Buffer&, const TensorOption&,
                 Buffer&>("AdaptiveAvgPool3D");
};

}  // namespace cl
}  // namespace nerva
