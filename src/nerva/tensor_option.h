#pragma once

#include <vector>

#include "nerva/shape.h"
#include "nerva/type_traits.h"

namespace nerva {

// Element type and shape (sizes and element strides) of a tensor.
struct TensorOption {
  Shape shape;
  DataType dtype = static_cast<DataType>(-1);

  size_t item_size() const { return TypeTraitsHelper::GetSize(dtype); }
  // item_size() times the element count (0 for rank 0).
  long bytes() const { return static_cast<long>(item_size()) * shape.size(); }
  std::vector<long> GetStrideInBytes() const;

  bool operator==(const TensorOption& other) const {
    return dtype == other.dtype && shape == other.shape;
  }
  bool operator!=(const TensorOption& other) const { return !(*this == other); }
};

}  // namespace nerva
