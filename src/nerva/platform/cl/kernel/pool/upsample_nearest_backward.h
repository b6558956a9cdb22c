#pragma once

#include <memory>

#include "nerva/kernel/train_option.h"
#include "nerva/platform/cl/kernel/pool/pool_frame.h"

namespace nerva {
namespace cl {

// Gradient of torch upsample_nearest2d ("UpsampleNearest2dBackward", program
// "upsample_nearest_backward.cl"): grad_input (N, C, H, W) or (C, H, W), the
// forward input's shape, from grad_output (same leading sizes, the forward
// output's spatial size). Output o reads input min(floor(o * scale), in - 1)
// with torch's scale (NearestScale; scales_h / scales_w are the forward's
// scale factors, 0 for none); each input element sums the outputs that read
// it, in output order, float accumulation.
class UpsampleNearest2dBackwardKernel : public KernelImpl {
 public:
  UpsampleNearest2dBackwardKernel(const UpsampleNearest2dBackwardOption& option,
                                  const TensorOption& grad_output_opt, const Buffer& grad_output,
                                  const TensorOption& grad_input_opt, Buffer& grad_input);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  UpsampleNearest2dBackwardOption option_;
  Tensor grad_output_, grad_input_;
};

}  // namespace cl
}  // namespace nerva
