#pragma once

#include "linvo/matrix.h"

namespace linvo {

// Copy of `in` broadcast to the target dims (or to `out`'s shape).
Matrix BroadcastTo(const Matrix& in, const Dims& dims);
void BroadcastTo(const Matrix& in, Matrix& out);

}  // namespace linvo
