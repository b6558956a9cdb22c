#pragma once

#include <memory>

#include "nerva/kernel/reduce_option.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

// torch.median(input, dim, keepdim) / torch.nanmedian ("ReduceWithIndicesMedian"):
// the lower median along dim and its int64 (or int32) index; equal values
// are ranked by index. NaN propagates (the first NaN's index) unless
// ignore_nan skips NaNs; a slice of NaNs only gives NaN at index 0. Each
// group ranks the elements of its slice against each other (quadratic in the
// slice length), so temp and temp_indices, sort scratch in the front-end's
// signature, are not used.
class ReduceWithIndicesMedianKernel : public KernelImpl {
 public:
  ReduceWithIndicesMedianKernel(const ReduceWithIndicesMedianOption& option,
                                const TensorOption& input, const Buffer& input_buf,
                                const TensorOption& values, Buffer& values_buf,
                                const TensorOption& indices, Buffer& indices_buf,
                                const TensorOption& temp, Buffer& temp_buf,
                                const TensorOption& temp_indices, Buffer& temp_indices_buf);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  ReduceWithIndicesMedianOption option_;
  Tensor input_;
  Tensor values_;
  Tensor indices_;
};

}  // namespace cl
}  // namespace nerva
