// Member and operator forms of the matrix functions.
#include <algorithm>
#include <numeric>

#include "linvo/linvo.h"

namespace linvo {
namespace {

// Replaces `self` by `result` in place when the layout matches, else rebinds the handle.
Matrix& Assign(Matrix& self, const Matrix& result) {
  if (result.shape() == self.shape() && result.dtype() == self.dtype()) {
    self.Load(result.data());
  } else {
    self = result;
  }
  return self;
}

template <typename Fn>
Matrix& CompoundAssign(Matrix& self, const Matrix& other, Fn fn) {
  if (BroadcastShape(self.shape(), other.shape()) == self.shape() &&
      TypePromote(self.dtype(), other.dtype()) == self.dtype()) {
    fn(self, other, self);  // element-wise: each output reads only its own position of self
    return self;
  }
  self = fn(self, other);
  return self;
}

Matrix WithShape(const Matrix& m, const Shape& shape) {
  Matrix copy = m.Clone();
  copy.impl()->shape = shape;
  return copy;
}

}  // namespace

Matrix operator+(const Matrix& a, const Matrix& b) {
  return Add(a, b);
}
Matrix operator-(const Matrix& a, const Matrix& b) {
  return Sub(a, b);
}
Matrix operator*(const Matrix& a, const Matrix& b) {
  return Mul(a, b);
}
Matrix operator/(const Matrix& a, const Matrix& b) {
  return Div(a, b);
}

#define LINVO_COMPOUND(OP, FN)                                                       \
  Matrix& Matrix::operator OP(const Matrix& other) {                                 \
    return CompoundAssign(*this, other, [](auto&&... args) { return FN(args...); }); \
  }
LINVO_COMPOUND(+=, Add)
LINVO_COMPOUND(-=, Sub)
LINVO_COMPOUND(*=, Mul)
LINVO_COMPOUND(/=, Div)
#undef LINVO_COMPOUND

#define LINVO_UNARY_MEMBER(FN) \
  Matrix Matrix::FN() const {  \
    return linvo::FN(*this);   \
  }                            \
  Matrix& Matrix::FN##_() {    \
    linvo::FN(*this, *this);   \
    return *this;              \
  }
LINVO_UNARY_MEMBER(Exp)
LINVO_UNARY_MEMBER(Sqrt)
LINVO_UNARY_MEMBER(Tanh)
LINVO_UNARY_MEMBER(Sigmoid)
LINVO_UNARY_MEMBER(Relu)
LINVO_UNARY_MEMBER(Relu6)
LINVO_UNARY_MEMBER(Gelu)
LINVO_UNARY_MEMBER(Negative)
#undef LINVO_UNARY_MEMBER

Matrix Matrix::Power(float p) const {
  return linvo::Power(*this, p);
}

Matrix& Matrix::Power_(float p) {
  linvo::Power(*this, p, *this);
  return *this;
}

Matrix Matrix::Softmax(int axis) const {
  return linvo::Softmax(*this, axis);
}

Matrix& Matrix::Softmax_(int axis) {
  return Assign(*this, linvo::Softmax(*this, axis));
}

#define LINVO_REDUCTION_MEMBER(FN)                                  \
  Matrix Matrix::FN(std::optional<int> axis, bool keepdims) const { \
    return linvo::FN(*this, axis, keepdims);                        \
  }
LINVO_REDUCTION_MEMBER(Sum)
LINVO_REDUCTION_MEMBER(Max)
LINVO_REDUCTION_MEMBER(Mean)
LINVO_REDUCTION_MEMBER(Std)
LINVO_REDUCTION_MEMBER(CountNonzero)
#undef LINVO_REDUCTION_MEMBER

Matrix Matrix::Transpose(const std::vector<int>& order) const {
  return linvo::Transpose(*this, order);
}

Matrix Matrix::T() const {
  return Reverse();
}

Matrix Matrix::Reshape(const Dims& dims) const {
  return WithShape(*this, shape().Reshape(dims));
}

Matrix& Matrix::Reshape_(const Dims& dims) {
  impl_->shape = shape().Reshape(dims);
  return *this;
}

Matrix Matrix::Squeeze(int start, int end) const {
  return Clone().Squeeze_(start, end);
}

Matrix& Matrix::Squeeze_(int start, int end) {
  if (!LINVO_CHECK(ndim() > 0)) return *this;
  int real_start = start < 0 ? start + static_cast<int>(ndim()) : start;
  int real_end = end < 0 ? end + static_cast<int>(ndim()) : end;
  if (!LINVO_CHECK(real_start <= real_end) || !LINVO_CHECK(real_end < ndim())) return *this;
  Dims dims;
  for (int d = 0; d < ndim(); ++d) {
    if (d < real_start || d > real_end || shape().dims()[d] != 1) dims.push_back(shape().dims()[d]);
  }
  impl_->shape = Shape(dims);
  return *this;
}

Matrix Matrix::Unsqueeze(int axis) const {
  return Clone().Unsqueeze_(axis);
}

Matrix& Matrix::Unsqueeze_(int axis) {
  Matrix& in = *this;
  int insert_index = axis < 0 ? axis + static_cast<int>(in.ndim()) : axis;
  if (!LINVO_CHECK(insert_index < in.ndim()) || insert_index < 0) return *this;
  impl_->shape = shape().Insert(insert_index, 1);
  return *this;
}

Matrix Matrix::Expand(int axis) const {
  return WithShape(*this, shape().Expand(axis));
}

Matrix& Matrix::Expand_(int axis) {
  impl_->shape = shape().Expand(axis);
  return *this;
}

Matrix Matrix::Reverse() const {
  std::vector<int> order(ndim());
  std::iota(order.rbegin(), order.rend(), 0);
  return linvo::Transpose(*this, order);
}

Matrix& Matrix::Reverse_() {
  return Assign(*this, Reverse());
}

Matrix Matrix::Slice(const Dims& starts, const Dims& ends, const Dims& steps) const {
  return linvo::Slice(*this, starts, ends, steps);
}

Matrix Matrix::Tile(const Dims& repeats) const {
  return linvo::Tile(*this, repeats);
}

Matrix Matrix::BroadcastTo(const Dims& dims) const {
  return linvo::BroadcastTo(*this, dims);
}

std::vector<Matrix> Matrix::Split(int axis, int64_t chunk) const {
  return linvo::Split(*this, axis, chunk);
}

Matrix Matrix::Index(const std::vector<Matrix>& indices) const {
  return linvo::Index(*this, indices);
}

Matrix Matrix::Pad(const Dims& sizes, double value) const {
  return linvo::Pad(*this, sizes, value);
}

Matrix Matrix::Pad(const Dims& sizes, long value) const {
  return linvo::Pad(*this, sizes, value);
}

}  // namespace linvo
