#include "linvo/function/tanh.h"

#include <cmath>

#include "linvo/function/helper.h"

namespace linvo {
namespace {

float TanhValue(float x) {
  return std::tanh(x);
}

}  // namespace

Matrix Tanh(const Matrix& in) {
  return UnaryElementWise(in, TanhValue);
}

void Tanh(const Matrix& in, Matrix& out) {
  UnaryElementWise(in, out, TanhValue);
}

}  // namespace linvo
