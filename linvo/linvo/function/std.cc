#include "linvo/function/std.h"

#include "linvo/function/cast.h"
#include "linvo/function/helper.h"
#include "linvo/function/moments.h"

namespace linvo {

void Std(const Matrix& in, std::optional<int> axis, bool keepdims, Matrix& out) {
  (void)keepdims;  // only the result's shape depends on it
  Matrix moments = RowMoments(in, AxesOf(axis), true);
  if (!LINVO_CHECK(out.size() == moments.size())) return;
  CastMatrix(moments, out);
}

Matrix Std(const Matrix& in, std::optional<int> axis, bool keepdims) {
  Matrix out = CreateReductionMatrix(in.shape(), MomentType(in.dtype()), axis, keepdims);
  Std(in, axis, keepdims, out);
  return out;
}

}  // namespace linvo
