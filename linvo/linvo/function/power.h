#pragma once

#include "linvo/matrix.h"

namespace linvo {

// x to the power p, computed in float and stored in the input's type.
Matrix Power(const Matrix& in, float p);
void Power(const Matrix& in, float p, Matrix& out);

}  // namespace linvo
