#pragma once

#include <memory>

#include "nerva/kernel/elementwise_option.h"
#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

namespace nerva {
namespace cl {

// torch.masked_fill(input, mask, value) with a broadcasting bool mask ("MaskedFill",
// masked_fill.cl). The result has the input's type; the value is converted to it
// (truncated toward zero for integers, nonzero for bool).
class MaskedFillKernel : public ElementwiseKernel {
 public:
  MaskedFillKernel(const MaskedFillOption& option, const TensorOption& input_opt,
                   const Buffer& input, const TensorOption& mask_opt, const Buffer& mask,
                   const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  MaskedFillOption option_;
};

}  // namespace cl
}  // namespace nerva
