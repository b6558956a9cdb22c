#pragma once

#include "linvo/matrix.h"

namespace linvo {

// -x, computed in float and stored in the input's type.
Matrix Negative(const Matrix& in);
void Negative(const Matrix& in, Matrix& out);

}  // namespace linvo
