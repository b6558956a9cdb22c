#include "nerva/platform/cl/kernel/elementwise/ternary.h"

#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

const char* TernaryKernel::OpName(TernaryType op) {
  switch (op) {
    case TernaryType::kAddcmul:
      return "ADDCMUL";
    case TernaryType::kAddcdiv:
      return "ADDCDIV";
    case TernaryType::kLerp:
      return "LERP";
  }
  throw std::invalid_argument(StrCat("Ternary: unsupported operator type ", static_cast<int>(op)));
}

DataType TernaryKernel::Types(TernaryType op, DataType input, DataType tensor1, DataType tensor2) {
  const DataType t = PromoteTypes({input, tensor1, tensor2});
  const bool ok = op == TernaryType::kAddcmul ? t != kBool : IsFloat(t);
  if (!ok) {
    throw std::invalid_argument(
        StrCat("Ternary: ", OpName(op), " not defined for ", input, ", ", tensor1, ", ", tensor2));
  }
  return t;
}

TernaryKernel::TernaryKernel(const TernaryOption& option, const TensorOption& input_opt,
                             const Buffer& input, const TensorOption& tensor1_opt,
                             const Buffer& tensor1, const TensorOption& tensor2_opt,
                             const Buffer& tensor2, const TensorOption& out_opt, Buffer& out)
    : TernaryKernel(option, MakeTensor(input_opt, input), MakeTensor(tensor1_opt, tensor1),
                    MakeTensor(tensor2_opt, tensor2), MakeTensor(out_opt, out)) {}

TernaryKernel::TernaryKernel(const TernaryOption& option, const Tensor& input,
                             const Tensor& tensor1, const Tensor& tensor2, const Tensor& out)
    : ElementwiseKernel("Ternary", {input, tensor1, tensor2}, out, {"input", "tensor1", "tensor2"}),
      option_(option) {}

bool TernaryKernel::Verify() const {
  VerifyShapes();
  VerifyOutputType(Types(option_.op_type, input_type(0), input_type(1), input_type(2)));
  return true;
}

ElementwiseSpec TernaryKernel::Spec(TernaryType op, DataType input, DataType tensor1,
                                    DataType tensor2) {
  const DataType t = Types(op, input, tensor1, tensor2);
  ElementwiseSpec spec{"ternary.cl", {t, t, t}, t, BuildOption(), false};
  spec.options.AddDefinition("OP", OpName(op));
  return spec;
}

void TernaryKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const ElementwiseSpec spec = Spec(option_.op_type, input_type(0), input_type(1), input_type(2));
  const float value_f = option_.value;
  const long value_l = static_cast<long>(option_.value);
  CompileElementwise(session, spec,
                     [=](KernelUnit& unit) { unit.SetArg(value_f).SetArg(value_l); });
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<TernaryKernel, const TernaryOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("Ternary");
};

}  // namespace cl
}  // namespace nerva
