#include "linvo/function/mul.h"

#include "linvo/function/helper.h"

namespace linvo {
namespace {

struct MulOp {
  template <typename T>
  T operator()(T x, T y) const {
    return static_cast<T>(x * y);
  }
};

}  // namespace

Matrix Mul(const Matrix& a, const Matrix& b) {
  return BroadcastElementWise(a, b, MulOp{});
}

void Mul(const Matrix& a, const Matrix& b, Matrix& out) {
  BroadcastElementWise(a, b, out, MulOp{});
}

}  // namespace linvo
