#include "nerva/platform/cl/kernel/pool/upsample_nearest_backward.h"

#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"

namespace nerva {
namespace cl {

UpsampleNearest2dBackwardKernel::UpsampleNearest2dBackwardKernel(
    const UpsampleNearest2dBackwardOption& option, const TensorOption& grad_output_opt,
    const Buffer& grad_output, const TensorOption& grad_input_opt, Buffer& grad_input)
    : KernelImpl("UpsampleNearest2dBackward"),
      option_(option),
      grad_output_(grad_output_opt, grad_output, 0),
      grad_input_(grad_input_opt, grad_input, 0) {}

bool UpsampleNearest2dBackwardKernel::Verify() const {
  CheckPlanes(name(), "grad_input", grad_input_, 2);
  CheckPlanes(name(), "grad_output", grad_output_, 2);
  MakeAdaptiveGeometry(name(), grad_input_.shape().sizes(), "grad_output",
                       grad_output_.shape().sizes(), 2);
  CheckPoolOutput(name(), "grad_input", grad_input_, grad_input_.shape().sizes(),
                  grad_output_.dtype());
  return true;
}

void UpsampleNearest2dBackwardKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const PoolGeometry g = MakeAdaptiveGeometry(name(), grad_input_.shape().sizes(), "grad_output",
                                              grad_output_.shape().sizes(), 2);
  if (g.InCount() == 0) return;
  grad_output_ = MakeContiguous(*this, session, grad_output_);
  auto unit =
      MakePoolUnit(*this, session, "upsample_nearest_backward.cl", "upsample_nearest_backward",
                   PoolBuildOption(grad_input_.dtype()), g, true);
  unit->SetArg(FlatView(grad_output_)).SetArg(FlatView(grad_input_));
  BindSizes(*unit, g);
  unit->SetArg(NearestScale(g.dim[1].in, g.dim[1].out, option_.scales_h))
      .SetArg(NearestScale(g.dim[2].in, g.dim[2].out, option_.scales_w));
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<UpsampleNearest2dBackwardKernel, const UpsampleNearest2dBackwardOption&,
                 const TensorOption&, const Buffer&, const TensorOption&, Buffer&>(
          "UpsampleNearest2dBackward");
};

}  // namespace cl
}  // namespace nerva
