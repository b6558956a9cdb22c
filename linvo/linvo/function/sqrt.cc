#include "linvo/function/sqrt.h"

#include <cmath>

#include "linvo/function/helper.h"

namespace linvo {
namespace {

float SqrtValue(float x) {
  return std::sqrt(x);
}

}  // namespace

Matrix Sqrt(const Matrix& in) {
  return UnaryElementWise(in, SqrtValue);
}

void Sqrt(const Matrix& in, Matrix& out) {
  UnaryElementWise(in, out, SqrtValue);
}

}  // namespace linvo
