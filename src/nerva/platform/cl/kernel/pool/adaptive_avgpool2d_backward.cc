#include "nerva/platform/cl/kernel/pool/adaptive_avgpool2d_backward.h"

#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"

namespace nerva {
namespace cl {

AdaptiveAvgPoolBackwardKernel::AdaptiveAvgPoolBackwardKernel(std::string name, int spatial,
                                                             Tensor grad_output, Tensor grad_input)
    : KernelImpl(std::move(name)),
      spatial_(spatial),
      grad_output_(std::move(grad_output)),
      grad_input_(std::move(grad_input)) {}

bool AdaptiveAvgPoolBackwardKernel::Verify() const {
  CheckPlanes(name(), "grad_input", grad_input_, spatial_);
  CheckDefined(name(), "grad_output", grad_output_);
  CheckPoolType(name(), "grad_output", grad_output_);
  MakeAdaptiveGeometry(name(), grad_input_.shape().sizes(), "grad_output",
                       grad_output_.shape().sizes(), spatial_);
  CheckPoolOutput(name(), "grad_input", grad_input_, grad_input_.shape().sizes(),
                  grad_output_.dtype());
  return true;
}

void AdaptiveAvgPoolBackwardKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const PoolGeometry g = MakeAdaptiveGeometry(name(), grad_input_.shape().sizes(), "grad_output",
                                              grad_output_.shape().sizes(), spatial_);
  if (g.InCount() == 0) return;
  grad_output_ = MakeContiguous(*this, session, grad_output_);
  const std::string program =
      spatial_ == 2 ? "adaptive_avgpool2d_backward" : "adaptive_avgpool3d_backward";
  auto unit = MakePoolUnit(*this, session, program + ".cl", program,
                           PoolBuildOption(grad_input_.dtype()), g, true);
  unit->SetArg(FlatView(grad_output_)).SetArg(FlatView(grad_input_));
  BindSizes(*unit, g);
}

AdaptiveAvgPool2DBackwardKernel::AdaptiveAvgPool2DBackwardKernel(
    const TensorOption& grad_output_opt, const Buffer& grad_output,
    const TensorOption& grad_input_opt, Buffer& grad_input)
    : AdaptiveAvgPoolBackwardKernel("AdaptiveAvgPool2DBackward", 2,
                                    Tensor(grad_output_opt, grad_output, 0),
                                    Tensor(grad_input_opt, grad_input, 0)) {}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<AdaptiveAvgPool2DBackwardKernel, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("AdaptiveAvgPool2DBackward");
};

}  // namespace cl
}  // namespace nerva
