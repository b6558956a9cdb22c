#include "nerva/platform/cl/kernel/pool/maxpool3d.h"

#include "nerva/platform/cl/module.h"

namespace nerva {
namespace cl {

MaxPool3DKernel::MaxPool3DKernel(const MaxPool3DOption& option, const TensorOption& input_opt,
                                 const Buffer& input, const TensorOption& out_opt, Buffer& out)
    : MaxPoolKernel("MaxPool3D", 3, MaxPoolWindow(option), Tensor(input_opt, input, 0),
                    Tensor(out_opt, out, 0), Tensor()) {}

MaxPool3DWithIndicesKernel::MaxPool3DWithIndicesKernel(
    const MaxPool3DOption& option, const TensorOption& input_opt, const Buffer& input,
    const TensorOption& out_opt, Buffer& out, const TensorOption& indices_opt, Buffer& indices)
    : MaxPoolKernel("MaxPool3DWithIndices", 3, MaxPoolWindow(option), Tensor(input_opt, input, 0),
                    Tensor(out_opt, out, 0), Tensor(indices_opt, indices, 0)) {}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<MaxPool3DKernel, const MaxPool3DOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("MaxPool3D");
  ClModule::singleton()
      .AddKernel<MaxPool3DWithIndicesKernel, const MaxPool3DOption&, const TensorOption&,
                 const Buffer&, const TensorOption&, Buffer&, const TensorOption&, Buffer&>(
          "MaxPool3DWithIndices");
};

}  // namespace cl
}  // namespace nerva
