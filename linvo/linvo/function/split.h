#pragma once

#include <vector>

#include "linvo/matrix.h"

namespace linvo {

// Splits along `axis` into chunks of `chunk` (the last may be shorter).
std::vector<Matrix> Split(const Matrix& in, int axis, int64_t chunk);
void Split(const Matrix& in, int axis, int64_t chunk, std::vector<Matrix>& outs);

}  // namespace linvo
