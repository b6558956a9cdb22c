#include "nerva/platform/cl/kernel/elementwise/where.h"

#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

WhereKernel::WhereKernel(const TensorOption& condition_opt, const Buffer& condition,
                         const TensorOption& input_opt, const Buffer& input,
                         const TensorOption& other_opt, const Buffer& other,
                         const TensorOption& out_opt, Buffer& out)
    : ElementwiseKernel("Where",
                        {MakeTensor(condition_opt, condition), MakeTensor(input_opt, input),
                         MakeTensor(other_opt, other)},
                        MakeTensor(out_opt, out), {"condition", "input", "other"}) {}

bool WhereKernel::Verify() const {
  VerifyShapes();
  if (input_type(0) != kBool && input_type(0) != kUInt8) {
    throw std::invalid_argument(
        StrCat("Where: condition must be DataType::kBool, got ", input_type(0)));
  }
  VerifyOutputType(PromoteTypes({input_type(1), input_type(2)}));
  return true;
}

void WhereKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const DataType t = PromoteTypes({input_type(1), input_type(2)});
  CompileElementwise(session, ElementwiseSpec{"where.cl", {kBool, t, t}, t, BuildOption(), false},
                     [](KernelUnit&) {});
}

NERVA_STATIC_REGISTER {
  auto& module = ClModule::singleton();
  module.AddKernel<WhereKernel, const TensorOption&, const Buffer&, const TensorOption&,
                   const Buffer&, const TensorOption&, const Buffer&, const TensorOption&, Buffer&>(
      "Where");
};

}  // namespace cl
}  // namespace nerva
