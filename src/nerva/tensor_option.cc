#include "nerva/tensor_option.h"

#include <limits>

namespace nerva {

std::vector<long> TensorOption::GetStrideInBytes() const {
  std::vector<long> strides = shape.strides();
  const long item = static_cast<long>(item_size());
  for (long& s : strides) {
    // Saturates rather than wraps; consumers refuse strides that large.
    if (__builtin_mul_overflow(s, item, &s)) s = std::numeric_limits<long>::max();
  }
  return strides;
}

}  // namespace nerva
