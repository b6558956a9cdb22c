#pragma once

#include <optional>

#include "linvo/matrix.h"

namespace linvo {

// Sum along one axis, or of everything without an axis. Accumulates in the type's accumulation
// type and keeps the input's type.
Matrix Sum(const Matrix& in, std::optional<int> axis = std::nullopt, bool keepdims = false);
void Sum(const Matrix& in, std::optional<int> axis, bool keepdims, Matrix& out);

}  // namespace linvo
