#pragma once

// "IndexPut" (index_put.cl): torch.index_put(input, indices, values, accumulate) with a single
// index tensor on IndexPutOption::dim (the other positions of the index tuple left out):
// out = input with out[..., index, ...] = values. values broadcast to the indexed shape (the
// input's sizes with index's sizes in place of dim); out has the input's shape and type.
// Negative indices count from the end; an index outside [-size, size) is skipped (nothing is
// written for it; PyTorch raises). Without accumulate duplicates keep one of their values,
// unspecified which (as PyTorch); with accumulate all are added (float sums within rounding).
// Overwriting moves any element type but double; accumulate takes float, half, int8, int16,
// int32, int64 and uint8.

#include <memory>
#include <string>

#include "nerva/kernel/base_option.h"
#include "nerva/platform/cl/kernel/index/index_frame.h"

namespace nerva {
namespace cl {

class IndexPutKernel : public IndexFrameKernel {
 public:
  IndexPutKernel(std::string name, const IndexPutOption& option, Tensor input, Tensor index,
                 Tensor values, Tensor out);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  std::vector<long> IndexedSizes() const;

  IndexPutOption option_;
  Tensor input_, index_, values_, out_;
};

// Throws std::runtime_error unless `values` broadcasts to `sizes`.
void CheckValuesBroadcast(const std::string& op, const Tensor& values,
                          const std::vector<long>& sizes);

}  // namespace cl
}  // namespace nerva
