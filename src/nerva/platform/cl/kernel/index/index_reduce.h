#pragma once

// "IndexReduce" (index_reduce.cl, passes in scatter_pre.cl): torch.index_reduce(input, dim,
// index, source, reduce, include_self) with IndexReduceOption; reduce is kProd, kMean, kAmax or
// kAmin. index is 1-D; source has the input's shape except index's length on dim; out has the
// input's shape and type. Negative indices count from the end; an index outside [-size, size)
// is skipped: its slice of source is ignored. Duplicates combine all their slices (means use
// floor division for integers, as PyTorch). Data: float, half, int8, int16, int32, int64, uint8.

#include <memory>
#include <string>

#include "nerva/kernel/base_option.h"
#include "nerva/platform/cl/kernel/index/index_frame.h"

namespace nerva {
namespace cl {

class IndexReduceKernel : public IndexFrameKernel {
 public:
  IndexReduceKernel(std::string name, const IndexReduceOption& option, Tensor input, Tensor index,
                    Tensor source, Tensor out);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  IndexReduceOption option_;
  Tensor input_, index_, source_, out_;
};

}  // namespace cl
}  // namespace nerva
