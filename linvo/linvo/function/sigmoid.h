#pragma once

#include "linvo/matrix.h"

namespace linvo {

// 1 / (1 + e^-x), computed in float and stored in the input's type.
Matrix Sigmoid(const Matrix& in);
void Sigmoid(const Matrix& in, Matrix& out);

}  // namespace linvo
