#include "nerva/platform/cl/kernel/pool/adaptive_maxpool2d.h"

#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"

namespace nerva {
namespace cl {

AdaptiveMaxPool2DKernel::AdaptiveMaxPool2DKernel(const TensorOption& input_opt, const Buffer& input,
                                                 const TensorOption& out_opt, Buffer& out)
    : KernelImpl("AdaptiveMaxPool2D"), input_(input_opt, input, 0), output_(out_opt, out, 0) {}

AdaptiveMaxPool2DKernel::AdaptiveMaxPool2DKernel(const TensorOption& input_opt, const Buffer& input,
                                                 const TensorOption& out_opt, Buffer& out,
                                                 const TensorOption& indices_opt, Buffer& indices)
    : KernelImpl("AdaptiveMaxPool2DWithIndices"),
      input_(input_opt, input, 0),
      output_(out_opt, out, 0),
      indices_(indices_opt, indices, 0) {}

bool AdaptiveMaxPool2DKernel::Verify() const {
  CheckPlanes(name(), "input", input_, 2);
  CheckDefined(name(), "output", output_);
  const std::vector<long>& out = output_.shape().sizes();
  MakeAdaptiveGeometry(name(), input_.shape().sizes(), "output", out, 2);
  CheckPoolOutput(name(), "output", output_, out, input_.dtype());
  if (name() == "AdaptiveMaxPool2DWithIndices") {
    CheckDefined(name(), "indices", indices_);
    CheckIndexType(name(), "indices", indices_.dtype());
    CheckPoolOutput(name(), "indices", indices_, out, indices_.dtype());
  }
  return true;
}

void AdaptiveMaxPool2DKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const PoolGeometry g =
      MakeAdaptiveGeometry(name(), input_.shape().sizes(), "output", output_.shape().sizes(), 2);
  if (g.OutCount() == 0) return;
  input_ = MakeContiguous(*this, session, input_);
  const bool with_indices = indices_.defined();
  auto unit = MakePoolUnit(
      *this, session, "adaptive_maxpool2d.cl", "adaptive_maxpool2d",
      PoolBuildOption(input_.dtype(), with_indices ? indices_.dtype() : kInt64), g, false);
  unit->SetArg(FlatView(input_))
      .SetArg(FlatView(output_))
      .SetArg(FlatView(with_indices ? indices_ : output_))
      .SetArg(static_cast<int>(with_indices));
  BindSizes(*unit, g);
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<AdaptiveMaxPool2DKernel, const TensorOption&, const Buffer&, const TensorOption&,
                 Buffer&>("AdaptiveMaxPool2D");
  ClModule::singleton()
      .AddKernel<AdaptiveMaxPool2DKernel, const TensorOption&, const Buffer&, const TensorOption&,
                 Buffer&, const TensorOption&, Buffer&>("AdaptiveMaxPool2DWithIndices");
};

}  // namespace cl
}  // namespace nerva
