#include "linvo/function/div.h"

#include <type_traits>

#include "linvo/function/helper.h"

namespace linvo {
namespace {

struct DivOp {
  template <typename T>
  T operator()(T x, T y) const {
    // Integer division by zero gives 0 instead of trapping.
    if constexpr (std::is_integral_v<T>) {
      return y == 0 ? T(0) : static_cast<T>(x / y);
    } else {
      return x / y;
    }
  }
};

}  // namespace

Matrix Div(const Matrix& a, const Matrix& b) {
  return BroadcastElementWise(a, b, DivOp{});
}

void Div(const Matrix& a, const Matrix& b, Matrix& out) {
  BroadcastElementWise(a, b, out, DivOp{});
}

}  // namespace linvo
