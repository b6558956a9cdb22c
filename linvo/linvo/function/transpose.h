#pragma once

#include <vector>

#include "linvo/matrix.h"

namespace linvo {

// Copy with permuted axes: result axis i is input axis order[i].
Matrix Transpose(const Matrix& mat, const std::vector<int>& order);
void Transpose(const Matrix& mat, const std::vector<int>& order, Matrix& out_mat);

}  // namespace linvo
