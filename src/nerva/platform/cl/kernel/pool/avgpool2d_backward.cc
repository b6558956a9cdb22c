#include "nerva/platform/cl/kernel/pool/avgpool2d_backward.h"

#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

void CheckGradOutput(const std::string& op, const Tensor& grad_output,
                     const std::vector<long>& expected) {
  CheckDefined(op, "grad_output", grad_output);
  const std::vector<long>& sizes = grad_output.shape().sizes();
  if (sizes.size() != expected.size()) {
    throw std::runtime_error(StrCat(op, ": grad_output has shape ", grad_output.shape(),
                                    " but the forward gives ", Shape(expected)));
  }
  for (size_t i = 0; i < sizes.size(); ++i) {
    if (sizes[i] != expected[i]) {
      throw std::runtime_error(StrCat(op, ": Expected grad_output to have size ", expected[i],
                                      " at dimension ", i, ", but got size ", sizes[i]));
    }
  }
  CheckPoolType(op, "grad_output", grad_output);
}

AvgPoolBackwardKernel::AvgPoolBackwardKernel(std::string name, int spatial, AvgArgs args,
                                             Tensor grad_output, Tensor grad_input)
    : KernelImpl(std::move(name)),
      spatial_(spatial),
      args_(std::move(args)),
      grad_output_(std::move(grad_output)),
      grad_input_(std::move(grad_input)) {}

bool AvgPoolBackwardKernel::Verify() const {
  CheckPlanes(name(), "grad_input", grad_input_, spatial_);
  const std::vector<long>& sizes = grad_input_.shape().sizes();
  const PoolGeometry g = MakePoolGeometry(name(), sizes, spatial_, args_.window);
  CheckGradOutput(name(), grad_output_, PooledSizes(sizes, g, spatial_));
  CheckPoolOutput(name(), "grad_input", grad_input_, sizes, grad_output_.dtype());
  return true;
}

void AvgPoolBackwardKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const PoolGeometry g =
      MakePoolGeometry(name(), grad_input_.shape().sizes(), spatial_, args_.window);
  if (g.InCount() == 0) return;
  grad_output_ = MakeContiguous(*this, session, grad_output_);
  const std::string program = spatial_ == 2 ? "avgpool2d_backward" : "avgpool3d_backward";
  auto unit = MakePoolUnit(*this, session, program + ".cl", program,
                           PoolBuildOption(grad_input_.dtype()), g, true);
  unit->SetArg(FlatView(grad_output_)).SetArg(FlatView(grad_input_));
  BindSizes(*unit, g);
  BindWindow(*unit, g);
  unit->SetArg(static_cast<int>(args_.count_include_pad))
      .SetArg(static_cast<int>(args_.divisor_override));
}

AvgPool2DBackwardKernel::AvgPool2DBackwardKernel(const AvgPool2DBackwardOption& option,
                                                 const TensorOption& grad_output_opt,
                                                 const Buffer& grad_output,
                                                 const TensorOption& grad_input_opt,
                                                 Buffer& grad_input)
    : AvgPoolBackwardKernel("AvgPool2DBackward", 2, AvgPoolArgs("AvgPool2DBackward", option),
                            Tensor(grad_output_opt, grad_output, 0),
                            Tensor(grad_input_opt, grad_input, 0)) {}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<AvgPool2DBackwardKernel, const AvgPool2DBackwardOption&, const TensorOption&,
                 const Buffer&, const TensorOption&, Buffer&>("AvgPool2DBackward");
};

}  // namespace cl
}  // namespace nerva
