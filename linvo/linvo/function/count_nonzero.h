#pragma once

#include <optional>
#include <vector>

#include "linvo/matrix.h"

namespace linvo {

// Number of non-zero elements (kInt64) over the given axes (all when empty) or one axis.
Matrix CountNonzero(const Matrix& in, const std::vector<int>& axes, bool keepdims = false);
void CountNonzero(const Matrix& in, const std::vector<int>& axes, bool keepdims, Matrix& out);
Matrix CountNonzero(const Matrix& in, std::optional<int> axis = std::nullopt,
                    bool keepdims = false);
void CountNonzero(const Matrix& in, std::optional<int> axis, bool keepdims, Matrix& out);

}  // namespace linvo
