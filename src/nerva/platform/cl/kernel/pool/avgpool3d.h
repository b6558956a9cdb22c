#pragma once

#include "nerva/platform/cl/kernel/pool/avgpool2d.h"

namespace nerva {
namespace cl {

// "AvgPool3D" (program "avgpool3d.cl"): AvgPoolKernel over depth, height, width.
class AvgPool3DKernel : public AvgPoolKernel {
 public:
  AvgPool3DKernel(const AvgPool3DOption& option, const TensorOption& input_opt, const Buffer& input,
                  const TensorOption& out_opt, Buffer& out);
};

}  // namespace cl
}  // namespace nerva
