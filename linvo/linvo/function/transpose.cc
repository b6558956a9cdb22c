#include "linvo/function/transpose.h"

#include "linvo/function/strided_copy.h"
#include "linvo/util.h"

namespace linvo {

void Transpose(const Matrix& mat, const std::vector<int>& order, Matrix& out_mat) {
  bool ok = LINVO_CHECK(mat.ndim() == out_mat.ndim());
  ok = LINVO_CHECK(mat.ndim() == order.size()) && ok;
  ok = LINVO_CHECK(mat.dtype() == out_mat.dtype()) && ok;
  if (!ok) return;
  Shape permuted = mat.shape().Transpose(order);
  if (!LINVO_CHECK(permuted == out_mat.shape())) return;
  Dims in_strides = mat.shape().strides();
  CopyLayout layout{permuted.dims(), {}, out_mat.shape().strides()};
  for (int axis : order) layout.in_strides.push_back(in_strides[GetRealAxis(axis, mat.ndim())]);
  StridedCopy(mat, out_mat, layout);
}

Matrix Transpose(const Matrix& mat, const std::vector<int>& order) {
  Matrix out(mat.shape().Transpose(order), mat.dtype());
  Transpose(mat, order, out);
  return out;
}

}  // namespace linvo
