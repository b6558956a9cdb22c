#include "linvo/function/mean.h"

#include "linvo/function/cast.h"
#include "linvo/function/helper.h"
#include "linvo/function/moments.h"

namespace linvo {

void Mean(const Matrix& in, std::optional<int> axis, bool keepdims, Matrix& out) {
  (void)keepdims;  // only the result's shape depends on it
  Matrix moments = RowMoments(in, AxesOf(axis), false);
  if (!LINVO_CHECK(out.size() == moments.size())) return;
  CastMatrix(moments, out);
}

Matrix Mean(const Matrix& in, std::optional<int> axis, bool keepdims) {
  Matrix out = CreateReductionMatrix(in.shape(), MomentType(in.dtype()), axis, keepdims);
  Mean(in, axis, keepdims, out);
  return out;
}

}  // namespace linvo
