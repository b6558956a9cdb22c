#pragma once

#include "linvo/data_type.h"
#include "nerva/type_traits.h"

namespace nerva {

// The matrix library numbers its element types as nerva does, so the
// conversion keeps the value; values outside 0..14 throw std::invalid_argument.
linvo::DataType ConvertNervaTypeToLinvo(DataType type);

}  // namespace nerva
