#pragma once

#include "nerva/kernel/reduce_option.h"
#include "nerva/platform/cl/kernel/reduce/argmax.h"

namespace nerva {
namespace cl {

// torch.max(input, dim) / torch.min(input, dim) ("ReduceWithIndices"): the
// extreme values (stored in the values tensor's type) and their int64 (or
// int32) indices; NaN propagates, ties keep the earlier index.
class ReduceWithIndicesKernel : public ArgReduceKernel {
 public:
  ReduceWithIndicesKernel(const ReduceWithIndicesOption& option, const TensorOption& input,
                          const Buffer& input_buf, const TensorOption& values, Buffer& values_buf,
                          const TensorOption& indices, Buffer& indices_buf);
  bool Verify() const override;

 protected:
  void AddExtraOptions(BuildOption& options) const override;

 private:
  ReduceType op_type_;
};

}  // namespace cl
}  // namespace nerva
