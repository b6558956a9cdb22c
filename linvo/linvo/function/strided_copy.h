#pragma once

#include "linvo/matrix.h"

namespace linvo {

// Element map shared by the layout functions: for every index i over `dims`,
//   out[out_offset + sum(i * out_strides)] = convert(in[in_offset + sum(i * in_strides)]).
// Strides and offsets are in elements of each matrix's own type.
struct CopyLayout {
  Dims dims;
  Dims in_strides;
  Dims out_strides;
  int64_t in_offset = 0;
  int64_t out_offset = 0;
};

// Copies with conversion from in's type to out's type (every pair of types).
void StridedCopy(const Matrix& in, Matrix& out, const CopyLayout& layout);

}  // namespace linvo
