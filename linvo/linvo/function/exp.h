#pragma once

#include "linvo/matrix.h"

namespace linvo {

// e^x, computed in float and stored in the input's type.
Matrix Exp(const Matrix& in);
void Exp(const Matrix& in, Matrix& out);

}  // namespace linvo
