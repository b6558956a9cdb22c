#include "linvo/function/gelu.h"

#include <cmath>

#include "linvo/function/helper.h"

namespace linvo {
namespace {

float GeluValue(float x) {
  return 0.5f * x * (1.0f + std::tanh(0.7978845f * (x + 0.044715f * x * x * x)));
}

}  // namespace

Matrix Gelu(const Matrix& in) {
  return UnaryElementWise(in, GeluValue);
}

void Gelu(const Matrix& in, Matrix& out) {
  UnaryElementWise(in, out, GeluValue);
}

}  // namespace linvo
