#pragma once

// "IndexPutWithIndicesArray" (index_put_array_indices.cl): torch.index_put(input, indices,
// values, accumulate) with IndexPutOption::accumulate (dim unused): out = input with
// out[indices[0], indices[1], ...] = values. The index list follows "IndexWithIndicesArray"
// (left-out entries, broadcasting, PyTorch's placement of the broadcast dimensions); values
// broadcast to that indexing result. Negative indices count from the end; an element whose
// index is outside [-size, size) is skipped (nothing is written for it; PyTorch raises).
// Without accumulate duplicates keep one of their values, unspecified which (as PyTorch);
// with accumulate all are added (float sums within rounding). Types as "IndexPut".

#include <memory>
#include <string>
#include <vector>

#include "nerva/kernel/base_option.h"
#include "nerva/platform/cl/kernel/index/index_array_indices.h"

namespace nerva {
namespace cl {

class IndexPutWithIndicesArrayKernel : public IndexFrameKernel {
 public:
  IndexPutWithIndicesArrayKernel(std::string name, const IndexPutOption& option, Tensor input,
                                 std::vector<Tensor> indices, Tensor values, Tensor out);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  ArrayPlan Plan() const;

  IndexPutOption option_;
  Tensor input_;
  std::vector<Tensor> indices_;
  Tensor values_, out_;
};

}  // namespace cl
}  // namespace nerva
