#include "nerva/platform/cl/kernel/pool/avgpool3d.h"

#include "nerva/platform/cl/module.h"

namespace nerva {
namespace cl {

AvgPool3DKernel::AvgPool3DKernel(const AvgPool3DOption& option, const TensorOption& input_opt,
                                 const Buffer& input, const TensorOption& out_opt, Buffer& out)
    : AvgPoolKernel("AvgPool3D", 3, AvgPoolArgs("AvgPool3D", option), Tensor(input_opt, input, 0),
                    Tensor(out_opt, out, 0)) {}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<AvgPool3DKernel, const AvgPool3DOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("AvgPool3D");
};

}  // namespace cl
}  // namespace nerva
