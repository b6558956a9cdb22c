#include "linvo/function/broadcast_to.h"

#include "linvo/function/strided_copy.h"
#include "linvo/util.h"

namespace linvo {

void BroadcastTo(const Matrix& in, Matrix& out) {
  // Every check is logged before giving up, so one call reports all that is wrong.
  const Shape& broadcast_to = out.shape();
  const auto ndim = [&in] { return in.ndim(); };
  bool ok = LINVO_CHECK(broadcast_to.ndim() >= ndim());
  ok = LINVO_CHECK(CanBroadcastShape(in.shape(), out.shape())) && ok;
  ok = LINVO_CHECK(out.dtype() == in.dtype()) && ok;
  if (!ok) return;
  CopyLayout layout{out.shape().dims(), in.shape().GetBroadcastStrides(out.shape()).dims(),
                    out.shape().strides()};
  StridedCopy(in, out, layout);
}

Matrix BroadcastTo(const Matrix& in, const Dims& dims) {
  Matrix out(Shape(dims), in.dtype());
  BroadcastTo(in, out);
  return out;
}

}  // namespace linvo
