#pragma once

#include <optional>

#include "linvo/matrix.h"

namespace linvo {

// Maximum along one axis, or of everything without an axis; keeps the input's type.
Matrix Max(const Matrix& in, std::optional<int> axis = std::nullopt, bool keepdims = false);
void Max(const Matrix& in, std::optional<int> axis, bool keepdims, Matrix& out);

}  // namespace linvo
