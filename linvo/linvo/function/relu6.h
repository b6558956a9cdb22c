#pragma once

#include "linvo/matrix.h"

namespace linvo {

// x clamped to [0, 6], computed in float and stored in the input's type.
Matrix Relu6(const Matrix& in);
void Relu6(const Matrix& in, Matrix& out);

}  // namespace linvo
