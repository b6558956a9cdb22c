#include "linvo/function/cast.h"

#include "linvo/function/strided_copy.h"
#include "linvo/util.h"

namespace linvo {
namespace {

template <DataType E1, DataType E2>
void CastMatrixImpl(const Matrix& mat1, Matrix& mat2) {
  bool ok = LINVO_CHECK(mat1.dtype() == E1);
  ok = LINVO_CHECK(mat2.dtype() == E2) && ok;
  ok = LINVO_CHECK(mat1.size() == mat2.size()) && ok;
  if (!ok) return;
  StridedCopy(mat1, mat2, CopyLayout{{mat1.size()}, {1}, {1}});
}

}  // namespace

void CastMatrix(const Matrix& in, Matrix& out) {
  DispatchTypePair(in.dtype(), out.dtype(), [&](auto t1, auto t2) {
    CastMatrixImpl<decltype(t1)::value, decltype(t2)::value>(in, out);
  });
}

Matrix CastMatrix(const Matrix& in, DataType dtype) {
  Matrix out(in.shape(), dtype);
  CastMatrix(in, out);
  return out;
}

}  // namespace linvo
