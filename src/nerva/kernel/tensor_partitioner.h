#pragma once

// Splitting of operands that exceed a device's limits into parts that are compiled and
// run one by one (the matrix products use it for large operands).

#include <utility>
#include <vector>

#include "nerva/tensor_option.h"

namespace nerva {

// Placeholder: the split policy arrives with the kernels that use it. For now a tensor
// is always kept whole, as a single part.
class TensorPartitioner {
 public:
  explicit TensorPartitioner(TensorOption option) : option_(std::move(option)) {}

  // The parts of the tensor, in order.
  std::vector<TensorOption> Parts() const { return {option_}; }
  size_t num_parts() const { return 1; }

 private:
  TensorOption option_;
};

}  // namespace nerva
