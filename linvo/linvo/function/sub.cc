#include "linvo/function/sub.h"

#include "linvo/function/helper.h"

namespace linvo {
namespace {

struct SubOp {
  template <typename T>
  T operator()(T x, T y) const {
    return static_cast<T>(x - y);
  }
};

}  // namespace

Matrix Sub(const Matrix& a, const Matrix& b) {
  return BroadcastElementWise(a, b, SubOp{});
}

void Sub(const Matrix& a, const Matrix& b, Matrix& out) {
  BroadcastElementWise(a, b, out, SubOp{});
}

}  // namespace linvo
