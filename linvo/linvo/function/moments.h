#pragma once

#include <vector>

#include "linvo/matrix.h"

namespace linvo {

// Result type of Mean and Std: floating types keep their type, others give kFloat.
DataType MomentType(DataType type);

// Per reduced row, the mean (or, with deviation, the population standard deviation) as a flat
// kDouble matrix.
Matrix RowMoments(const Matrix& in, const std::vector<int>& axes, bool deviation);

}  // namespace linvo
