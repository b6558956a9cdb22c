#pragma once

#include "linvo/matrix.h"

namespace linvo {

// Hyperbolic tangent, computed in float and stored in the input's type.
Matrix Tanh(const Matrix& in);
void Tanh(const Matrix& in, Matrix& out);

}  // namespace linvo
