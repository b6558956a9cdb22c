#pragma once

#include "linvo/matrix.h"

namespace linvo {

// Strided sub-block [starts, ends) with positive steps along every axis. The `out` form converts
// from the input's type into the result's type.
Matrix Slice(const Matrix& in, const Dims& starts, const Dims& ends, const Dims& steps);
void Slice(const Matrix& in, const Dims& starts, const Dims& ends, const Dims& steps, Matrix& out);

}  // namespace linvo
