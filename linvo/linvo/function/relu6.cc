#include "linvo/function/relu6.h"

#include <algorithm>

#include "linvo/function/helper.h"

namespace linvo {
namespace {

float Relu6Value(float x) {
  return std::min(std::max(x, 0.0f), 6.0f);
}

}  // namespace

Matrix Relu6(const Matrix& in) {
  return UnaryElementWise(in, Relu6Value);
}

void Relu6(const Matrix& in, Matrix& out) {
  UnaryElementWise(in, out, Relu6Value);
}

}  // namespace linvo
