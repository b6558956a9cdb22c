#include "nerva/platform/cl/kernel/gemm/matrix_view.h"

#include <algorithm>

#include "nerva/shape.h"

namespace nerva {
namespace cl {

long MatrixView::Extent() const {
  if (batch <= 0 || rows <= 0 || cols <= 0) return 0;
  return (batch - 1) * batch_stride + (rows - 1) * row_stride + (cols - 1) * col_stride +
         static_cast<long>(TypeTraitsHelper::GetSize(dtype));
}

MatrixView MatrixView::Part(long batch_begin, long batch_end, long row_begin, long row_end) const {
  MatrixView part = *this;
  part.offset += batch_begin * batch_stride + row_begin * row_stride;
  part.batch = batch_end - batch_begin;
  part.rows = row_end - row_begin;
  return part;
}

MatrixView MatrixView::OnSubBuffer(long align) const {
  MatrixView view = *this;
  const long start = offset - offset % std::max(align, 1L);
  const long length = offset - start + Extent();
  if (start == 0 && length == buffer.size()) return view;
  view.buffer = buffer.View(start, length, kMemDefault);
  view.offset = offset - start;
  return view;
}

ClTensor MatrixView::ToClTensor() const {
  // A single batch, row or column never moves: a zero stride keeps every field small.
  std::vector<long> strides = {batch > 1 ? batch_stride : 0, rows > 1 ? row_stride : 0,
                               cols > 1 ? col_stride : 0};
  return ClTensor(Shape({batch, rows, cols}), dtype, buffer, {1, 1, 1},
                  static_cast<uint32_t>(offset), false, strides);
}

}  // namespace cl
}  // namespace nerva
