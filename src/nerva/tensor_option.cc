#include "nerva/tensor_option.h"

namespace nerva {

std::vector<long> TensorOption::GetStrideInBytes() const {
  std::vector<long> strides = shape.strides();
  const long item = static_cast<long>(item_size());
  for (long& s : strides) s *= item;
  return strides;
}

}  // namespace nerva
