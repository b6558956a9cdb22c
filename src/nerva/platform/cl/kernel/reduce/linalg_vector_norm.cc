#include "nerva/platform/cl/kernel/reduce/linalg_vector_norm.h"

#include <cmath>
#include <cstdio>

#include "nerva/platform/cl/kernel/reduce/reduce_util.h"
#include "nerva/platform/cl/module.h"
#include "nerva/type_traits.h"

namespace nerva {
namespace cl {

namespace {
// The Reduce kind that folds the mapped elements of order `ord`.
ReduceOption NormReduceOption(const LinalgVectorNormOption& option) {
  ReduceOption reduce;
  reduce.op_type = std::isinf(option.ord) ? (option.ord > 0 ? ReduceType::kMax : ReduceType::kMin)
                                          : ReduceType::kSum;
  reduce.axes = option.dim;
  reduce.keepdim = option.keepdim;
  return reduce;
}
}  // namespace

LinalgVectorNormKernel::LinalgVectorNormKernel(const LinalgVectorNormOption& option,
                                               const TensorOption& input, const Buffer& input_buf,
                                               const TensorOption& output, Buffer& output_buf)
    : ReduceKernel("LinalgVectorNorm", NormReduceOption(option), input, input_buf, output,
                   output_buf),
      ord_(option.ord) {}

bool LinalgVectorNormKernel::Verify() const {
  CheckType(name(), "input", input_.dtype(), false);
  CheckType(name(), "output", output_.dtype(), false);
  if (std::isnan(ord_)) throw std::invalid_argument("LinalgVectorNorm: ord is NaN");
  return ReduceKernel::Verify();
}

void LinalgVectorNormKernel::AddExtraOptions(BuildOption& options) const {
  if (std::isinf(ord_)) {
    options.AddOption(ord_ > 0 ? "-DNORM_ORD_INF" : "-DNORM_ORD_NEG_INF");
  } else if (ord_ == 0.0f) {
    options.AddOption("-DNORM_ORD_0");
  } else if (ord_ == 1.0f) {
    options.AddOption("-DNORM_ORD_1");
  } else if (ord_ == 2.0f) {
    options.AddOption("-DNORM_ORD_2");
  } else {
    // Exact as a hexadecimal float literal.
    char text[32];
    std::snprintf(text, sizeof(text), "%af", static_cast<double>(ord_));
    options.AddOption("-DNORM_ORD_P").AddDefinition("NORM_P", text);
  }
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<LinalgVectorNormKernel, const LinalgVectorNormOption&, const TensorOption&,
                 const Buffer&, const TensorOption&, Buffer&>("LinalgVectorNorm");
};

}  // namespace cl
}  // namespace nerva
