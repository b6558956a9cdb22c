#pragma once

#include "nerva/platform/cl/kernel/pool/avgpool2d_backward.h"

namespace nerva {
namespace cl {

// "AvgPool3DBackward" (program "avgpool3d_backward.cl").
class AvgPool3DBackwardKernel : public AvgPoolBackwardKernel {
 public:
  AvgPool3DBackwardKernel(const AvgPool3DBackwardOption& option,
                          const TensorOption& grad_output_opt, const Buffer& grad_output,
                          const TensorOption& grad_input_opt, Buffer& grad_input);
};

}  // namespace cl
}  // namespace nerva
