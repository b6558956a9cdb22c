#pragma once

#include "linvo/matrix.h"

namespace linvo {

// Square root, computed in float and stored in the input's type.
Matrix Sqrt(const Matrix& in);
void Sqrt(const Matrix& in, Matrix& out);

}  // namespace linvo
