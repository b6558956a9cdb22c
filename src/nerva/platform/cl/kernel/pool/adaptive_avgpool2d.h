#pragma once

#include <memory>
#include <string>

#include "nerva/platform/cl/kernel/pool/pool_frame.h"

namespace nerva {
namespace cl {

// torch adaptive_avg_pool2d / adaptive_avg_pool3d to the output's spatial
// size, over the 2 or 3 trailing dimensions of an (N, C, ...) or (C, ...)
// float or half input: output o averages the input window
// [floor(o * in / out), ceil((o + 1) * in / out)) along each dimension. The
// output keeps the input's leading sizes and is contiguous.
class AdaptiveAvgPoolKernel : public KernelImpl {
 public:
  AdaptiveAvgPoolKernel(std::string name, int spatial, Tensor input, Tensor output);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  int spatial_;
  Tensor input_, output_;
};

// "AdaptiveAvgPool2D" (program "adaptive_avgpool2d.cl").
class AdaptiveAvgPool2DKernel : public AdaptiveAvgPoolKernel {
 public:
  AdaptiveAvgPool2DKernel(const TensorOption& input_opt, const Buffer& input,
                          const TensorOption& out_opt, Buffer& out);
};

}  // namespace cl
}  // namespace nerva
