#pragma once

#include "linvo/matrix.h"

namespace linvo {

// Pads with a constant: `sizes` holds (before, after) pairs, the first pair for the last axis,
// the next for the axis before it, and so on.
Matrix Pad(const Matrix& in, const Dims& sizes, double value);
Matrix Pad(const Matrix& in, const Dims& sizes, long value);

}  // namespace linvo
