#pragma once

#include <memory>

#include "nerva/kernel/elementwise_option.h"
#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

namespace nerva {
namespace cl {

// torch.nn.functional.threshold(input, threshold, value) ("Threshold", threshold.cl):
// x > threshold ? x : value in the input's type, the scalars converted to it (integer
// tensors truncate them toward zero). bool is not supported.
class ThresholdKernel : public ElementwiseKernel {
 public:
  ThresholdKernel(const ThresholdOption& option, const TensorOption& input_opt, const Buffer& input,
                  const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  ThresholdOption option_;
};

}  // namespace cl
}  // namespace nerva
