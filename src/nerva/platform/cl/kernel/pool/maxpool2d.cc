#include "nerva/platform/cl/kernel/pool/maxpool2d.h"

#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"

namespace nerva {
namespace cl {

WindowArgs MaxPoolWindow(const MaxPool2DOption& option) {
  return {option.kernel_size, option.stride, option.padding, option.dilation, option.ceil_mode};
}

WindowArgs MaxPoolWindow(const MaxPool3DOption& option) {
  return {option.kernel_size, option.stride, option.padding, option.dilation, option.ceil_mode};
}

MaxPoolKernel::MaxPoolKernel(std::string name, int spatial, WindowArgs window, Tensor input,
                             Tensor output, Tensor indices)
    : KernelImpl(std::move(name)),
      spatial_(spatial),
      window_(std::move(window)),
      input_(std::move(input)),
      output_(std::move(output)),
      indices_(std::move(indices)) {}

PoolGeometry MaxPoolKernel::Geometry() const {
  return MakePoolGeometry(name(), input_.shape().sizes(), spatial_, window_);
}

bool MaxPoolKernel::Verify() const {
  CheckPlanes(name(), "input", input_, spatial_);
  const PoolGeometry g = Geometry();
  const std::vector<long> sizes = PooledSizes(input_.shape().sizes(), g, spatial_);
  CheckPoolOutput(name(), "output", output_, sizes, input_.dtype());
  if (name().find("WithIndices") != std::string::npos) {
    CheckDefined(name(), "indices", indices_);
    CheckIndexType(name(), "indices", indices_.dtype());
    CheckPoolOutput(name(), "indices", indices_, sizes, indices_.dtype());
  }
  return true;
}

void MaxPoolKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const PoolGeometry g = Geometry();
  if (g.OutCount() == 0) return;
  input_ = MakeContiguous(*this, session, input_);
  const bool with_indices = indices_.defined();
  const std::string program = spatial_ == 2 ? "maxpool2d" : "maxpool3d";
  const BuildOption options =
      PoolBuildOption(input_.dtype(), with_indices ? indices_.dtype() : kInt64);
  const bool items = spatial_ == 2 && !session->host_cpu();
  // CPU devices, values only, width stride 1 or 2: whole output rows, all
  // rows of a plane in one work item when there are planes enough.
  constexpr long kPlaneItems = 64;
  const bool rows = spatial_ == 2 && session->host_cpu() && !with_indices && g.dim[2].stride <= 2;
  auto unit = rows    ? MakeRowUnit(*this, session, program + ".cl", program + "_rows", options,
                                    g.planes, g.planes >= kPlaneItems ? 1 : g.dim[1].out)
              : items ? MakePlaneItemUnit(*this, session, program + ".cl", program + "_items",
                                          options, g.planes, g.dim[1].out * g.dim[2].out)
              : spatial_ == 2
                  ? MakeRowBlockUnit(*this, session, program + ".cl", program, options, g.planes,
                                     g.dim[1].out, g.dim[2].out)
                  : MakePoolUnit(*this, session, program + ".cl", program, options, g, false);
  unit->SetArg(FlatView(input_))
      .SetArg(FlatView(output_))
      .SetArg(FlatView(with_indices ? indices_ : output_))
      .SetArg(static_cast<int>(with_indices));
  if (spatial_ == 2) {
    BindRowGeometry(*unit, g, true);
  } else {
    BindGeometry(*unit, g);
  }
}

MaxPool2DKernel::MaxPool2DKernel(const MaxPool2DOption& option, const TensorOption& input_opt,
                                 const Buffer& input, const TensorOption& out_opt, Buffer& out)
    : MaxPoolKernel("MaxPool2D", 2, MaxPoolWindow(option), Tensor(input_opt, input, 0),
                    Tensor(out_opt, out, 0), Tensor()) {}

MaxPool2DWithIndicesKernel::MaxPool2DWithIndicesKernel(
    const MaxPool2DOption& option, const TensorOption& input_opt, const Buffer& input,
    const TensorOption& out_opt, Buffer& out, const TensorOption& indices_opt, Buffer& indices)
    : MaxPoolKernel("MaxPool2DWithIndices", 2, MaxPoolWindow(option), Tensor(input_opt, input, 0),
                    Tensor(out_opt, out, 0), Tensor(indices_opt, indices, 0)) {}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<MaxPool2DKernel, const MaxPool2DOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("MaxPool2D");
  ClModule::singleton()
      .AddKernel<MaxPool2DWithIndicesKernel, const MaxPool2DOption&, const TensorOption&,
                 const Buffer&, const TensorOption&, Buffer&, const TensorOption&, Buffer&>(
          "MaxPool2DWithIndices");
};

}  // namespace cl
}  // namespace nerva
