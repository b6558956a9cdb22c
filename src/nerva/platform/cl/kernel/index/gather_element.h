#pragma once

// "GatherElement" (gather_element.cl): torch.gather(input, dim, index). index has the input's
// rank and, on every dimension but dim, at most the input's size; out has index's shape.
// Indices lie in [0, size of dim) as in PyTorch; any other index (negative ones included)
// reads 0 (PyTorch raises; nothing outside any buffer is read). Input and index may be strided
// or expanded views; index int32 or int64; data any element type but double; out contiguous.

#include <memory>
#include <string>

#include "nerva/platform/cl/kernel/index/index_frame.h"

namespace nerva {
namespace cl {

class GatherElementKernel : public IndexFrameKernel {
 public:
  GatherElementKernel(std::string name, int dim, Tensor input, Tensor index, Tensor out);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  int dim_;
  Tensor input_, index_, out_;
};

// Checks torch.gather/scatter's shape rule: `index` has `data`'s rank and no larger size than
// `data` on every dimension but `dim` (every dimension when `dim` is negative).
void CheckIndexFits(const std::string& op, const std::string& index_arg, const Tensor& index,
                    const std::string& data_arg, const Tensor& data, int dim);

// The walk table of ix_walk: index's sizes, then strides a, b, c (elements) per dimension.
std::vector<long> WalkTable(int dim, const std::vector<long>& sizes, const std::vector<long>& a,
                            const std::vector<long>& b, const std::vector<long>& c);

}  // namespace cl
}  // namespace nerva
