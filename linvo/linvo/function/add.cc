#include "linvo/function/add.h"

#include "linvo/function/helper.h"

namespace linvo {
namespace {

struct AddOp {
  template <typename T>
  T operator()(T x, T y) const {
    return static_cast<T>(x + y);
  }
};

}  // namespace

Matrix Add(const Matrix& a, const Matrix& b) {
  return BroadcastElementWise(a, b, AddOp{});
}

void Add(const Matrix& a, const Matrix& b, Matrix& out) {
  BroadcastElementWise(a, b, out, AddOp{});
}

}  // namespace linvo
