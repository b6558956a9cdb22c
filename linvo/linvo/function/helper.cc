#include "linvo/function/helper.h"

#include <algorithm>
#include <numeric>

#include "linvo/function/cast.h"
#include "linvo/function/transpose.h"

namespace linvo {

BroadcastLayout MakeBroadcastLayout(const Shape& a, const Shape& b, const Shape& out) {
  Dims a_strides = a.GetBroadcastStrides(out).dims();
  Dims b_strides = b.GetBroadcastStrides(out).dims();
  BroadcastLayout layout;
  for (size_t d = 0; d < out.dims().size(); ++d) {
    int64_t n = out.dims()[d];
    if (n == 1) continue;
    // Merge with the previous axis when both inputs step through the two axes contiguously.
    if (!layout.dims.empty() && layout.a_strides.back() == a_strides[d] * n &&
        layout.b_strides.back() == b_strides[d] * n) {
      layout.dims.back() *= n;
      layout.a_strides.back() = a_strides[d];
      layout.b_strides.back() = b_strides[d];
      continue;
    }
    layout.dims.push_back(n);
    layout.a_strides.push_back(a_strides[d]);
    layout.b_strides.push_back(b_strides[d]);
  }
  if (layout.dims.empty()) {
    layout.dims = {1};
    layout.a_strides = {0};
    layout.b_strides = {0};
  }
  return layout;
}

Matrix PrepareOperand(const Matrix& m, DataType type) {
  return m.dtype() == type ? m : m.CastTo(type);
}

std::vector<int> AxesOf(std::optional<int> axis) {
  return axis ? std::vector<int>{*axis} : std::vector<int>{};
}

Matrix CreateReductionMatrix(const Shape& shape, DataType dtype, const std::vector<int>& axes,
                             bool keepdims) {
  std::vector<int> real = GetRealAxes(axes, shape.ndim());
  Dims dims;
  for (int d = 0; d < shape.ndim(); ++d) {
    bool reduced = real.empty() || std::find(real.begin(), real.end(), d) != real.end();
    if (!reduced) {
      dims.push_back(shape.dims()[d]);
    } else if (keepdims) {
      dims.push_back(1);
    }
  }
  if (dims.empty()) dims.push_back(1);
  return Matrix(Shape(dims), dtype);
}

Matrix CreateReductionMatrix(const Shape& shape, DataType dtype, std::optional<int> axis,
                             bool keepdims) {
  return CreateReductionMatrix(shape, dtype, AxesOf(axis), keepdims);
}

Matrix TransposeReductionMatrix(const Matrix& m, const std::vector<int>& axes) {
  std::vector<int> real = GetRealAxes(axes, m.ndim());
  std::vector<int> order;
  for (int d = 0; d < m.ndim(); ++d) {
    if (std::find(real.begin(), real.end(), d) == real.end()) order.push_back(d);
  }
  order.insert(order.end(), real.begin(), real.end());
  std::vector<int> identity(order.size());
  std::iota(identity.begin(), identity.end(), 0);
  return order == identity ? m : Transpose(m, order);
}

Matrix TransposeReductionMatrix(const Matrix& m, int axis) {
  return TransposeReductionMatrix(m, std::vector<int>{axis});
}

ReductionRows MakeReductionRows(const Matrix& in, const std::vector<int>& axes) {
  if (axes.empty()) return {in, 1, in.size()};
  int64_t length = 1;
  for (int axis : GetRealAxes(axes, in.ndim())) length *= in.shape().dims()[axis];
  Matrix rows = TransposeReductionMatrix(in, axes);
  int64_t count = 1;
  for (int d = 0; d < in.ndim(); ++d) count *= in.shape().dims()[d];
  count =
      length ? count / length : CreateReductionMatrix(in.shape(), in.dtype(), axes, false).size();
  return {rows, count, length};
}

}  // namespace linvo
