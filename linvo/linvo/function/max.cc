#include "linvo/function/max.h"

#include "linvo/function/helper.h"

namespace linvo {

void Max(const Matrix& in, std::optional<int> axis, bool keepdims, Matrix& out) {
  (void)keepdims;  // only the result's shape depends on it
  if (!LINVO_CHECK(out.dtype() == in.dtype())) return;
  ReductionRows rows = MakeReductionRows(in, AxesOf(axis));
  if (!LINVO_CHECK(out.size() == rows.count) || rows.length == 0) return;
  DispatchType(in.dtype(), [&](auto tag) {
    constexpr DataType E = decltype(tag)::value;
    using T = Underlying<E>;
    const T* src = rows.rows.data<T>();
    T* dst = out.data<T>();
    for (int64_t r = 0; r < rows.count; ++r) {
      const T* row = src + r * rows.length;
      ComputeType<E> best = LoadCompute<E>(row[0]);
      for (int64_t i = 1; i < rows.length; ++i) {
        ComputeType<E> v = LoadCompute<E>(row[i]);
        best = v > best ? v : best;
      }
      dst[r] = StoreCompute<E>(best);
    }
  });
}

Matrix Max(const Matrix& in, std::optional<int> axis, bool keepdims) {
  Matrix out = CreateReductionMatrix(in.shape(), in.dtype(), axis, keepdims);
  Max(in, axis, keepdims, out);
  return out;
}

}  // namespace linvo
