#pragma once

#include <optional>

#include "linvo/matrix.h"

namespace linvo {

// Mean along one axis, or of everything without an axis. Accumulated in double; the result has
// the input's type for floating types and kFloat for integral ones.
Matrix Mean(const Matrix& in, std::optional<int> axis = std::nullopt, bool keepdims = false);
void Mean(const Matrix& in, std::optional<int> axis, bool keepdims, Matrix& out);

}  // namespace linvo
