#pragma once

// Host side of the element-wise operators shared by every kernel of the family:
// memory aliasing, vector widths, broadcasting and dimension coalescing.

#include "nerva/tensor.h"

namespace nerva {
namespace cl {

// True when the element ranges of `a` and `b` overlap in device memory: the
// same buffer, or views (sub-buffers) of one buffer, with intersecting byte spans.
bool SharesMemory(const Tensor& a, const Tensor& b);

// Vector width of a flat element-wise kernel over `length` elements. Normally
// AdjustVecSize(requested, length): the last vector is shifted back to end at
// the tensor's end and overlaps the one before it. When the output aliases an
// input that overlap would re-read elements already written, so the width is
// the largest of 4, 2, 1 that divides `length` and nothing overlaps.
int ElementwiseVecSize(int requested, long length, bool aliased);

}  // namespace cl
}  // namespace nerva
