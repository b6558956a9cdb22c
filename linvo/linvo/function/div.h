#pragma once

#include "linvo/matrix.h"

namespace linvo {

// Element-wise a / b (integer division by zero gives 0), with broadcasting; result shape
// BroadcastShape(a, b), type TypePromote(a, b).
Matrix Div(const Matrix& a, const Matrix& b);
void Div(const Matrix& a, const Matrix& b, Matrix& out);

}  // namespace linvo
