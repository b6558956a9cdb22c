#pragma once

#include "linvo/matrix.h"

namespace linvo {

// Element-wise a * b, with broadcasting; result shape BroadcastShape(a, b), type TypePromote(a, b).
Matrix Mul(const Matrix& a, const Matrix& b);
void Mul(const Matrix& a, const Matrix& b, Matrix& out);

}  // namespace linvo
