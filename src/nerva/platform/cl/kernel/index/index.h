#pragma once

// "Index" (index.cl): input[..., index, ...] with one index tensor on IndexOption::dim, as
// PyTorch's advanced indexing with a single index tensor. out has the input's sizes with the
// index's sizes in place of dim. Negative indices count from the end; an index outside
// [-size, size) yields zeros for its slice (PyTorch raises; nothing outside any buffer is read).
// Index: int32 or int64; data: any element type but double; out contiguous.

#include "nerva/platform/cl/kernel/index/gather.h"

namespace nerva {
namespace cl {

class IndexKernel : public GatherKernel {
 public:
  IndexKernel(std::string name, int dim, Tensor input, Tensor index, Tensor out)
      : GatherKernel(std::move(name), "index.cl", dim, std::move(input), std::move(index),
                     std::move(out)) {}
};

}  // namespace cl
}  // namespace nerva
