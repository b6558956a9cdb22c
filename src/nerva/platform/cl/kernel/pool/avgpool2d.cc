#include "nerva/platform/cl/kernel/pool/avgpool2d.h"

#include <climits>
#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

template <typename Option>
AvgArgs MakeAvgArgs(const std::string& op, const Option& option, int spatial) {
  if (option.divisor_override < INT_MIN || option.divisor_override > INT_MAX) {
    throw std::invalid_argument(
        StrCat(op, ": divisor_override ", option.divisor_override, " is out of range"));
  }
  AvgArgs args;
  args.window = {option.kernel_size, option.stride, option.padding, std::vector<long>(spatial, 1),
                 option.ceil_mode};
  args.count_include_pad = option.count_include_pad;
  args.divisor_override = option.divisor_override;
  return args;
}

}  // namespace

AvgArgs AvgPoolArgs(const std::string& op, const AvgPool2DOption& option) {
  return MakeAvgArgs(op, option, 2);
}

AvgArgs AvgPoolArgs(const std::string& op, const AvgPool3DOption& option) {
  return MakeAvgArgs(op, option, 3);
}

AvgPoolKernel::AvgPoolKernel(std::string name, int spatial, AvgArgs args, Tensor input,
                             Tensor output)
    : KernelImpl(std::move(name)),
      spatial_(spatial),
      args_(std::move(args)),
      input_(std::move(input)),
      output_(std::move(output)) {}

bool AvgPoolKernel::Verify() const {
  CheckPlanes(name(), "input", input_, spatial_);
  const PoolGeometry g = MakePoolGeometry(name(), input_.shape().sizes(), spatial_, args_.window);
  CheckPoolOutput(name(), "output", output_, PooledSizes(input_.shape().sizes(), g, spatial_),
                  input_.dtype());
  return true;
}

void AvgPoolKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const PoolGeometry g = MakePoolGeometry(name(), input_.shape().sizes(), spatial_, args_.window);
  if (g.OutCount() == 0) return;
  input_ = MakeContiguous(*this, session, input_);
  const std::string program = spatial_ == 2 ? "avgpool2d" : "avgpool3d";
  auto unit = MakePoolUnit(*this, session, program + ".cl", program,
                           PoolBuildOption(input_.dtype()), g, false);
  unit->SetArg(FlatView(input_)).SetArg(FlatView(output_));
  BindSizes(*unit, g);
  BindWindow(*unit, g);
  unit->SetArg(static_cast<int>(args_.count_include_pad))
      .SetArg(static_cast<int>(args_.divisor_override));
}

AvgPool2DKernel::AvgPool2DKernel(const AvgPool2DOption& option, const TensorOption& input_opt,
                                 const Buffer& input, const TensorOption& out_opt, Buffer& out)
    : AvgPoolKernel("AvgPool2D", 2, AvgPoolArgs("AvgPool2D", option), Tensor(input_opt, input, 0),
                    Tensor(out_opt, out, 0)) {}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<AvgPool2DKernel, const AvgPool2DOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("AvgPool2D");
};

}  // namespace cl
}  // namespace nerva
