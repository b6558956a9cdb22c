#include "nerva/platform/cl/kernel/pool/max_pool3d_with_indices_backward.h"

#include "nerva/platform/cl/module.h"

namespace nerva {
namespace cl {

MaxPool3DWithIndicesBackwardKernel::MaxPool3DWithIndicesBackwardKernel(
    const MaxPool3DWithIndicesBackwardOption& option, const TensorOption& grad_output_opt,
    const Buffer& grad_output, const TensorOption& indices_opt, const Buffer& indices,
    const TensorOption& grad_input_opt, Buffer& grad_input)
    : MaxPoolBackwardKernel("MaxPool3DWithIndicesBackward", 3, MaxPoolWindow(option),
                            Tensor(grad_output_opt, grad_output, 0),
                            Tensor(indices_opt, indices, 0),
                            Tensor(grad_input_opt, grad_input, 0)) {}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<MaxPool3DWithIndicesBackwardKernel, const MaxPool3DWithIndicesBackwardOption&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("MaxPool3DWithIndicesBackward");
};

}  // namespace cl
}  // namespace nerva
