#pragma once

// Batched matrix operands of the matrix products as the device sees them:
// [batch][row][column] with byte strides, so that a transposed operand is a
// swap of the row and column strides and a broadcast batch a zero stride.

#include <cstdint>
#include <vector>

#include "nerva/buffer.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/tensor_option.h"

namespace nerva {
namespace cl {

struct MatrixView {
  Buffer buffer;
  DataType dtype = static_cast<DataType>(-1);
  long batch = 1, rows = 1, cols = 1;
  long batch_stride = 0, row_stride = 0, col_stride = 0;  // bytes
  long offset = 0;                                        // bytes

  // Bytes from the first addressed byte to one past the last one (0 when empty).
  long Extent() const;
  // Rows [row_begin, row_end) of batches [batch_begin, batch_end).
  MatrixView Part(long batch_begin, long batch_end, long row_begin, long row_end) const;
  // The same view on a sub-buffer that starts at or just before its first byte,
  // aligned to `align` bytes, so that the device offsets stay small.
  MatrixView OnSubBuffer(long align) const;
  // The 3-D device descriptor: x batch, y row, z column.
  ClTensor ToClTensor() const;
};

}  // namespace cl
}  // namespace nerva
