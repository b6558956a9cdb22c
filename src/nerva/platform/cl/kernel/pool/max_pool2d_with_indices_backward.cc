#include "nerva/platform/cl/kernel/pool/max_pool2d_with_indices_backward.h"

#include "nerva/platform/cl/kernel/pool/avgpool2d_backward.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"

namespace nerva {
namespace cl {

MaxPoolBackwardKernel::MaxPoolBackwardKernel(std::string name, int spatial, WindowArgs window,
                                             Tensor grad_output, Tensor indices, Tensor grad_input)
    : KernelImpl(std::move(name)),
      spatial_(spatial),
      window_(std::move(window)),
      grad_output_(std::move(grad_output)),
      indices_(std::move(indices)),
      grad_input_(std::move(grad_input)) {}

bool MaxPoolBackwardKernel::Verify() const {
  CheckPlanes(name(), "grad_input", grad_input_, spatial_);
  const std::vector<long>& sizes = grad_input_.shape().sizes();
  const PoolGeometry g = MakePoolGeometry(name(), sizes, spatial_, window_);
  const std::vector<long> pooled = PooledSizes(sizes, g, spatial_);
  CheckGradOutput(name(), grad_output_, pooled);
  CheckDefined(name(), "indices", indices_);
  CheckIndexType(name(), "indices", indices_.dtype());
  CheckSameSizes(name(), "indices", indices_, "grad_output", grad_output_);
  CheckPoolOutput(name(), "grad_input", grad_input_, sizes, grad_output_.dtype());
  return true;
}

void MaxPoolBackwardKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const PoolGeometry g = MakePoolGeometry(name(), grad_input_.shape().sizes(), spatial_, window_);
  if (g.InCount() == 0) return;
  grad_output_ = MakeContiguous(*this, session, grad_output_);
  indices_ = MakeContiguous(*this, session, indices_);
  const std::string program =
      spatial_ == 2 ? "max_pool2d_with_indices_backward" : "max_pool3d_with_indices_backward";
  auto unit = MakePoolUnit(*this, session, program + ".cl", program,
                           PoolBuildOption(grad_input_.dtype(), indices_.dtype()), g, true);
  unit->SetArg(FlatView(grad_output_)).SetArg(FlatView(indices_)).SetArg(FlatView(grad_input_));
  BindGeometry(*unit, g);
}

MaxPool2DWithIndicesBackwardKernel::MaxPool2DWithIndicesBackwardKernel(
    const MaxPool2DWithIndicesBackwardOption& option, const TensorOption& grad_output_opt,
    const Buffer& grad_output, const TensorOption& indices_opt, const Buffer& indices,
    const TensorOption& grad_input_opt, Buffer& grad_input)
    : MaxPoolBackwardKernel("MaxPool2DWithIndicesBackward", 2, MaxPoolWindow(option),
                            Tensor(grad_output_opt, grad_output, 0),
                            Tensor(indices_opt, indices, 0),
                            Tensor(grad_input_opt, grad_input, 0)) {}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<MaxPool2DWithIndicesBackwardKernel, const MaxPool2DWithIndicesBackwardOption&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("MaxPool2DWithIndicesBackward");
};

}  // namespace cl
}  // namespace nerva
