#include "linvo/function/softmax.h"

#include "linvo/function/div.h"
#include "linvo/function/exp.h"
#include "linvo/function/max.h"
#include "linvo/function/sub.h"
#include "linvo/function/sum.h"

namespace linvo {
namespace {

DataType SoftmaxType(DataType type) {
  return TypeTraitsHelper::IsFloattingPoint(type) ? type : kFloat;
}

}  // namespace

void Softmax(const Matrix& in, int axis, Matrix& out) {
  DataType type = SoftmaxType(in.dtype());
  Matrix x = in.dtype() == type ? in : in.CastTo(type);
  Matrix m = Max(x, axis, true);
  Matrix d = Sub(x, m);
  Matrix e = Exp(d);
  Matrix s = Sum(e, axis, true);
  Div(e, s, out);
}

Matrix Softmax(const Matrix& in, int axis) {
  Matrix out = Empty(in.shape(), SoftmaxType(in.dtype()));
  Softmax(in, axis, out);
  return out;
}

}  // namespace linvo
