#pragma once

#include "nerva/platform/cl/kernel/pool/maxpool2d.h"

namespace nerva {
namespace cl {

// "MaxPool3D" (program "maxpool3d.cl"): MaxPoolKernel over depth, height, width.
class MaxPool3DKernel : public MaxPoolKernel {
 public:
  MaxPool3DKernel(const MaxPool3DOption& option, const TensorOption& input_opt, const Buffer& input,
                  const TensorOption& out_opt, Buffer& out);
};

// "MaxPool3DWithIndices": also writes the index of every maximum.
class MaxPool3DWithIndicesKernel : public MaxPoolKernel {
 public:
  MaxPool3DWithIndicesKernel(const MaxPool3DOption& option, const TensorOption& input_opt,
                             const Buffer& input, const TensorOption& out_opt, Buffer& out,
                             const TensorOption& indices_opt, Buffer& indices);
};

}  // namespace cl
}  // namespace nerva
