#include "linvo/function/relu.h"

#include "linvo/function/helper.h"

namespace linvo {
namespace {

float ReluValue(float x) {
  return x > 0 ? x : 0.0f;
}

}  // namespace

Matrix Relu(const Matrix& in) {
  return UnaryElementWise(in, ReluValue);
}

void Relu(const Matrix& in, Matrix& out) {
  UnaryElementWise(in, out, ReluValue);
}

}  // namespace linvo
