#pragma once

#include <memory>

#include "nerva/kernel/base_option.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

// torch.embedding_renorm_(weight, indices, max_norm, norm_type) ("MaxNorm"),
// in place on a 2-D float or half weight: every row named by indices (int64
// or int32, any shape) whose norm_type-norm exceeds max_norm is scaled by
// max_norm / (norm + 1e-7), once however often it is named. Indices outside
// [0, rows) are skipped on the device.
class MaxNormKernel : public KernelImpl {
 public:
  MaxNormKernel(const MaxNormOption& option, const TensorOption& weight, const Buffer& weight_buf,
                const TensorOption& indices, const Buffer& indices_buf);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  MaxNormOption option_;
  Tensor weight_;
  Tensor indices_;
};

}  // namespace cl
}  // namespace nerva
