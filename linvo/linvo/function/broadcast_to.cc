#include "linvo/function/broadcast_to.h"

#include "linvo/function/strided_copy.h"
#include "linvo/util.h"

namespace linvo {

void BroadcastTo(const Matrix& in, Matrix& out) {
  if (!LINVO_CHECK(CanBroadcastShape(in.shape(), out.shape())) ||
      !LINVO_CHECK(out.dtype() == in.dtype()) || !LINVO_CHECK(out.ndim() >= in.ndim())) {
    return;
  }
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
