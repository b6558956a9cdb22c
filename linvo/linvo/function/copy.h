#pragma once

#include "linvo/matrix.h"

namespace linvo {

// Copies the block of `block_size` at `in_offsets` in `in` to `out_offsets` in `out`, converting
// from the input's type to the output's.
void Copy(const Matrix& in, const Dims& in_offsets, const Dims& out_offsets, const Dims& block_size,
          Matrix& out);

}  // namespace linvo
