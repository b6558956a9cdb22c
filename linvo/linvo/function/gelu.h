#pragma once

#include "linvo/matrix.h"

namespace linvo {

// GELU, tanh approximation, computed in float and stored in the input's type.
Matrix Gelu(const Matrix& in);
void Gelu(const Matrix& in, Matrix& out);

}  // namespace linvo
