#include "nerva/linvo_type.h"

#include <stdexcept>
#include <string>

namespace nerva {

linvo::DataType ConvertNervaTypeToLinvo(DataType type) {
  int32_t value = static_cast<int32_t>(type);
  if (value < kHalf || value > kBool) {
    throw std::invalid_argument("Convert to linvo type fail, unsupport nerva type" +
                                std::to_string(value));
  }
  return static_cast<linvo::DataType>(value);
}

}  // namespace nerva
