#pragma once

#include "nerva/platform/cl/kernel/pool/adaptive_avgpool2d_backward.h"

namespace nerva {
namespace cl {

// "AdaptiveAvgPool3DBackward" (program "adaptive_avgpool3d_backward.cl").
class AdaptiveAvgPool3DBackwardKernel : public AdaptiveAvgPoolBackwardKernel {
 public:
  AdaptiveAvgPool3DBackwardKernel(const TensorOption& grad_output_opt, const Buffer& grad_output,
                                  const TensorOption& grad_input_opt, Buffer& grad_input);
};

}  // namespace cl
}  // namespace nerva
