#pragma once

#include "nerva/platform/cl/kernel/pool/max_pool2d_with_indices_backward.h"

namespace nerva {
namespace cl {

// "MaxPool3DWithIndicesBackward" (program "max_pool3d_with_indices_backward.cl").
class MaxPool3DWithIndicesBackwardKernel : public MaxPoolBackwardKernel {
 public:
  MaxPool3DWithIndicesBackwardKernel(const MaxPool3DWithIndicesBackwardOption& option,
                                     const TensorOption& grad_output_opt, const Buffer& grad_output,
                                     const TensorOption& indices_opt, const Buffer& indices,
                                     const TensorOption& grad_input_opt, Buffer& grad_input);
};

}  // namespace cl
}  // namespace nerva
