#include "linvo/function/exp.h"

#include <cmath>

#include "linvo/function/helper.h"

namespace linvo {
namespace {

float ExpValue(float x) {
  return std::exp(x);
}

}  // namespace

Matrix Exp(const Matrix& in) {
  return UnaryElementWise(in, ExpValue);
}

void Exp(const Matrix& in, Matrix& out) {
  UnaryElementWise(in, out, ExpValue);
}

}  // namespace linvo
