#include "linvo/function/count_nonzero.h"

#include "linvo/function/helper.h"

namespace linvo {

void CountNonzero(const Matrix& in, const std::vector<int>& axes, bool keepdims, Matrix& out) {
  (void)keepdims;  // only the result's shape depends on it
  if (!LINVO_CHECK(out.dtype() == kInt64)) return;
  ReductionRows rows = MakeReductionRows(in, axes);
  if (!LINVO_CHECK(out.size() == rows.count)) return;
  int64_t* dst = out.data<int64_t>();
  DispatchType(in.dtype(), [&](auto tag) {
    constexpr DataType E = decltype(tag)::value;
    using T = Underlying<E>;
    const T* src = rows.rows.data<T>();
    for (int64_t r = 0; r < rows.count; ++r) {
      int64_t count = 0;
      for (int64_t i = 0; i < rows.length; ++i) {
        count += ConvertElement<E, kBool>(src[r * rows.length + i]);
      }
      dst[r] = count;
    }
  });
}

Matrix CountNonzero(const Matrix& in, const std::vector<int>& axes, bool keepdims) {
  Matrix out = CreateReductionMatrix(in.shape(), kInt64, axes, keepdims);
  CountNonzero(in, axes, keepdims, out);
  return out;
}

void CountNonzero(const Matrix& in, std::optional<int> axis, bool keepdims, Matrix& out) {
  CountNonzero(in, AxesOf(axis), keepdims, out);
}

Matrix CountNonzero(const Matrix& in, std::optional<int> axis, bool keepdims) {
  return CountNonzero(in, AxesOf(axis), keepdims);
}

}  // namespace linvo
