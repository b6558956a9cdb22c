#pragma once

// "ScatterMean" (scattermean_pre.cl, scattermean_add.cl, scattermean_mean.cl):
// torch.scatter_reduce(input, dim, index, src, reduce="mean", include_self) with
// ScatterMeanOption. Shapes, types, index bounds (an index outside [0, size of dim) is
// skipped) and duplicates as "Scatter". count has the input's shape and is int32, int64 or
// float; it receives each position's divisor (the number of values averaged there, input
// included; 1 where nothing was averaged), or may be left out (empty shape).

#include "nerva/platform/cl/kernel/index/scatter.h"

namespace nerva {
namespace cl {

class ScatterMeanKernel : public ScatterKernel {
 public:
  ScatterMeanKernel(std::string name, int dim, bool include_self, Tensor input, Tensor index,
                    Tensor src, Tensor count, Tensor out)
      : ScatterKernel(std::move(name), dim, ScatterReduceType::kMean, include_self,
                      std::move(input), std::move(index), std::move(src), std::move(count),
                      std::move(out)) {}
};

}  // namespace cl
}  // namespace nerva
