#include "linvo/function/sum.h"

#include "linvo/function/helper.h"

namespace linvo {

void Sum(const Matrix& in, std::optional<int> axis, bool keepdims, Matrix& out) {
  (void)keepdims;  // only the result's shape depends on it
  if (!LINVO_CHECK(out.dtype() == in.dtype())) return;
  ReductionRows rows = MakeReductionRows(in, AxesOf(axis));
  if (!LINVO_CHECK(out.size() == rows.count)) return;
  DispatchType(in.dtype(), [&](auto tag) {
    constexpr DataType E = decltype(tag)::value;
    constexpr DataType A = TypeTraits<E>::accum;
    using T = Underlying<E>;
    const T* src = rows.rows.data<T>();
    T* dst = out.data<T>();
    for (int64_t r = 0; r < rows.count; ++r) {
      dst[r] = ConvertElement<A, E>(SumRow<Underlying<A>, E>(src + r * rows.length, rows.length));
    }
  });
}

Matrix Sum(const Matrix& in, std::optional<int> axis, bool keepdims) {
  Matrix out = CreateReductionMatrix(in.shape(), in.dtype(), axis, keepdims);
  Sum(in, axis, keepdims, out);
  return out;
}

}  // namespace linvo
