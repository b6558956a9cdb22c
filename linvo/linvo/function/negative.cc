#include "linvo/function/negative.h"

#include <cmath>

#include "linvo/function/helper.h"

namespace linvo {
namespace {

float NegativeValue(float x) {
  return -x;
}

}  // namespace

Matrix Negative(const Matrix& in) {
  return UnaryElementWise(in, NegativeValue);
}

void Negative(const Matrix& in, Matrix& out) {
  UnaryElementWise(in, out, NegativeValue);
}

}  // namespace linvo
