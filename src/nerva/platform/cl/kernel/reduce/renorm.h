#pragma once

#include <memory>

#include "nerva/kernel/reduce_option.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

// torch.renorm(input, p, dim, maxnorm) ("Renorm") on float and half tensors:
// each slice along dim whose p-norm (p > 0, +inf allowed) exceeds maxnorm is
// scaled by maxnorm / (norm + 1e-7). The output may share the input's memory
// (in place). One group per slice.
class RenormKernel : public KernelImpl {
 public:
  RenormKernel(const RenormOption& option, const TensorOption& input, const Buffer& input_buf,
               const TensorOption& output, Buffer& output_buf);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  RenormOption option_;
  Tensor input_;
  Tensor output_;
};

}  // namespace cl
}  // namespace nerva
