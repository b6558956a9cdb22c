#pragma once

#include <memory>
#include <string>

#include "nerva/platform/cl/kernel/pool/pool_frame.h"

namespace nerva {
namespace cl {

// torch adaptive_max_pool2d to the output's spatial size ("AdaptiveMaxPool2D",
// "AdaptiveMaxPool2DWithIndices"; program "adaptive_maxpool2d.cl"): the
// maximum of [floor(o * in / out), ceil((o + 1) * in / out)) along height and
// width (NaN wins, the first maximum is kept) and its index h * W + w within
// the plane (int64, or int32 when the caller's tensor says so). Input
// (N, C, H, W) or (C, H, W), float or half; outputs contiguous.
class AdaptiveMaxPool2DKernel : public KernelImpl {
 public:
  AdaptiveMaxPool2DKernel(const TensorOption& input_opt, const Buffer& input,
                          const TensorOption& out_opt, Buffer& out);
  AdaptiveMaxPool2DKernel(const TensorOption& input_opt, const Buffer& input,
                          const TensorOption& out_opt, Buffer& out, const TensorOption& indices_opt,
                          Buffer& indices);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  Tensor input_, output_, indices_;
};

}  // namespace cl
}  // namespace nerva
