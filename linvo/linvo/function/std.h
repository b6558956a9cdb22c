#pragma once

#include <optional>

#include "linvo/matrix.h"

namespace linvo {

// Population standard deviation (divisor n) along one axis, or of everything without an axis.
// Accumulated in double; the result has the input's type for floating types and kFloat otherwise.
Matrix Std(const Matrix& in, std::optional<int> axis = std::nullopt, bool keepdims = false);
void Std(const Matrix& in, std::optional<int> axis, bool keepdims, Matrix& out);

}  // namespace linvo
