#pragma once

#include "linvo/matrix.h"

namespace linvo {

// exp(x - max) / sum(exp(x - max)) along `axis`. Floating inputs keep their type; integral
// inputs are computed in and return kFloat.
Matrix Softmax(const Matrix& in, int axis);
void Softmax(const Matrix& in, int axis, Matrix& out);

}  // namespace linvo
