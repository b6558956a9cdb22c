#pragma once

#include "linvo/matrix.h"

namespace linvo {

// Element-by-element conversion between any two types.
Matrix CastMatrix(const Matrix& in, DataType dtype);
void CastMatrix(const Matrix& in, Matrix& out);

}  // namespace linvo
