#pragma once

#include "linvo/matrix.h"

namespace linvo {

// Repeats the input `repeats[i]` times along each axis; a longer `repeats` adds leading axes.
Matrix Tile(const Matrix& in, const Dims& repeats);
// Fills `out` with repeats of `in`; the repeats follow from the two shapes (aligned at the end).
void Tile(const Matrix& in, Matrix& out);

}  // namespace linvo
