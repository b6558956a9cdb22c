#include "linvo/function/sigmoid.h"

#include <cmath>

#include "linvo/function/helper.h"

namespace linvo {
namespace {

float SigmoidValue(float x) {  // Two forms so that e^x never overflows.
  if (x >= 0) return 1.0f / (1.0f + std::exp(-x));
  float e = std::exp(x);
  return e / (1.0f + e);
}

}  // namespace

Matrix Sigmoid(const Matrix& in) {
  return UnaryElementWise(in, SigmoidValue);
}

void Sigmoid(const Matrix& in, Matrix& out) {
  UnaryElementWise(in, out, SigmoidValue);
}

}  // namespace linvo
