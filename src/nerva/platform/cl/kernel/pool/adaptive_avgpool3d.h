#pragma once

#include "nerva/platform/cl/kernel/pool/adaptive_avgpool2d.h"

namespace nerva {
namespace cl {

// "AdaptiveAvgPool3D" (program "adaptive_avgpool3d.cl").
class AdaptiveAvgPool3DKernel : public AdaptiveAvgPoolKernel {
 public:
  AdaptiveAvgPool3DKernel(const TensorOption& input_opt, const Buffer& input,
                          const TensorOption& out_opt, Buffer& out);
};

}  // namespace cl
}  // namespace nerva
