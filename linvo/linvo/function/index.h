#pragma once

#include <vector>

#include "linvo/matrix.h"

namespace linvo {

// Advanced indexing on the leading axes. Integer index matrices (negative values count from the
// end) are broadcast together; a kBool mask selects its non-zero positions over as many axes as
// it has. The result has the broadcast index shape followed by the remaining input axes.
Matrix Index(const Matrix& in, const std::vector<Matrix>& indices);
void Index(const Matrix& in, const std::vector<Matrix>& indices, Matrix& out);

}  // namespace linvo
