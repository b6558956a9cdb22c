#pragma once

#include "linvo/matrix.h"

namespace linvo {

// max(x, 0), computed in float and stored in the input's type.
Matrix Relu(const Matrix& in);
void Relu(const Matrix& in, Matrix& out);

}  // namespace linvo
