#include "linvo/function/moments.h"

#include <cmath>

#include "linvo/function/helper.h"

namespace linvo {

DataType MomentType(DataType type) {
  return TypeTraitsHelper::IsFloattingPoint(type) ? type : kFloat;
}

Matrix RowMoments(const Matrix& in, const std::vector<int>& axes, bool deviation) {
  ReductionRows rows = MakeReductionRows(in, axes);
  Matrix result(Shape{rows.count}, kDouble);
  double* dst = result.data<double>();
  DispatchType(in.dtype(), [&](auto tag) {
    constexpr DataType E = decltype(tag)::value;
    using T = Underlying<E>;
    for (int64_t r = 0; r < rows.count; ++r) {
      const T* row = rows.rows.data<T>() + r * rows.length;
      double n = static_cast<double>(rows.length);
      double mean = SumRow<double, E>(row, rows.length) / n;
      if (deviation) {
        double squares = 0;
        for (int64_t i = 0; i < rows.length; ++i) {
          double d = static_cast<double>(LoadCompute<E>(row[i])) - mean;
          squares += d * d;
        }
        mean = std::sqrt(squares / n);
      }
      dst[r] = mean;
    }
  });
  return result;
}

}  // namespace linvo
