#include "linvo/function/power.h"

#include <cmath>

#include "linvo/function/helper.h"

namespace linvo {

Matrix Power(const Matrix& in, float p) {
  return UnaryElementWise(in, [p](float x) { return std::pow(x, p); });
}

void Power(const Matrix& in, float p, Matrix& out) {
  UnaryElementWise(in, out, [p](float x) { return std::pow(x, p); });
}

}  // namespace linvo
