#include "nerva/kernel/tensor_partitioner.h"

#include <algorithm>
#include <stdexcept>

#include "nerva/util.h"

namespace nerva {

namespace {
// Bytes an operand addresses for `b` batches of `r` rows.
long PartExtent(const TensorPartitioner::Operand& op, long batch, long rows, long b, long r) {
  return op.extent - (batch - b) * op.batch_stride - (rows - r) * op.row_stride;
}
// The largest count in [0, total] for which fits(count) holds (fits is monotonic).
template <typename Fits>
long LargestFitting(long total, Fits fits) {
  long lo = 0, hi = total;
  while (lo < hi) {
    const long mid = lo + (hi - lo + 1) / 2;
    if (fits(mid)) {
      lo = mid;
    } else {
      hi = mid - 1;
    }
  }
  return lo;
}
}  // namespace

TensorPartitioner TensorPartitioner::Make(long batch, long rows,
                                          const std::vector<Operand>& operands, long limit) {
  TensorPartitioner result;
  auto fits = [&](long b, long r) {
    return std::all_of(operands.begin(), operands.end(), [&](const Operand& op) {
      return PartExtent(op, batch, rows, b, r) <= limit;
    });
  };
  if (batch <= 0 || rows <= 0 || fits(batch, rows)) {
    result.parts_.push_back({0, batch, 0, rows});
    return result;
  }
  const long batches = LargestFitting(batch, [&](long b) { return b > 0 && fits(b, rows); });
  if (batches > 0) {
    result.dim_ = 0;
    for (long b = 0; b < batch; b += batches) {
      result.parts_.push_back({b, std::min(batch, b + batches), 0, rows});
    }
    return result;
  }
  const long row_count = LargestFitting(rows, [&](long r) { return r > 0 && fits(1, r); });
  if (row_count == 0) {
    throw std::runtime_error(
        StrCat("TensorPartitioner: one row of an operand exceeds the limit of ", limit, " bytes"));
  }
  result.dim_ = 1;
  for (long b = 0; b < batch; ++b) {
    for (long r = 0; r < rows; r += row_count) {
      result.parts_.push_back({b, b + 1, r, std::min(rows, r + row_count)});
    }
  }
  return result;
}

}  // namespace nerva
