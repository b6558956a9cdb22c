#include "nerva/platform/cl/kernel/elementwise/binary.h"

#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

enum class Rule {
  kArith,    // common type, bool allowed
  kNumeric,  // common type, bool rejected
  kToFloat,  // integers and bool compute in float
  kCompare,  // common type, bool result
  kLogical,  // each input as it is, bool result
  kBits,     // integers and bool
  kShift     // integers
};

struct Row {
  const char* name;
  Rule rule;
};

const Row kRows[] = {
    {"ADD", Rule::kArith},
    {"SUB", Rule::kNumeric},
    {"MUL", Rule::kArith},
    {"DIV", Rule::kToFloat},
    {"DIV_TRUNC", Rule::kNumeric},
    {"DIV_FLOOR", Rule::kNumeric},
    {"REMAINDER", Rule::kNumeric},
    {"FMOD", Rule::kNumeric},
    {"POW", Rule::kNumeric},
    {"MAXIMUM", Rule::kArith},
    {"MINIMUM", Rule::kArith},
    {"FMAX", Rule::kArith},
    {"FMIN", Rule::kArith},
    {"ATAN2", Rule::kToFloat},
    {"HYPOT", Rule::kToFloat},
    {"COPYSIGN", Rule::kToFloat},
    {"XLOGY", Rule::kToFloat},
    {"EQ", Rule::kCompare},
    {"NE", Rule::kCompare},
    {"LT", Rule::kCompare},
    {"LE", Rule::kCompare},
    {"GT", Rule::kCompare},
    {"GE", Rule::kCompare},
    {"LOGICAL_AND", Rule::kLogical},
    {"LOGICAL_OR", Rule::kLogical},
    {"LOGICAL_XOR", Rule::kLogical},
    {"BITWISE_AND", Rule::kBits},
    {"BITWISE_OR", Rule::kBits},
    {"BITWISE_XOR", Rule::kBits},
    {"BITWISE_LEFT_SHIFT", Rule::kShift},
    {"BITWISE_RIGHT_SHIFT", Rule::kShift},
};
constexpr int kRowCount = sizeof(kRows) / sizeof(kRows[0]);

const Row& RowOf(BinaryType op) {
  const int code = static_cast<int>(op);
  if (code < 0 || code >= kRowCount) {
    throw std::invalid_argument(StrCat("Binary: unsupported operator type ", code));
  }
  return kRows[code];
}

}  // namespace

const char* BinaryKernel::OpName(BinaryType op) {
  return RowOf(op).name;
}

std::pair<std::pair<DataType, DataType>, DataType> BinaryKernel::Types(BinaryType op, DataType a,
                                                                       DataType b) {
  const Row& row = RowOf(op);
  const DataType common = PromoteTypes({a, b});
  const bool is_float = IsFloat(common);
  bool ok = true;
  DataType arg = common, result = common;
  switch (row.rule) {
    case Rule::kArith:
      break;
    case Rule::kNumeric:
      ok = common != kBool;
      break;
    case Rule::kToFloat:
      arg = result = is_float ? common : kFloat;
      break;
    case Rule::kCompare:
      result = kBool;
      break;
    case Rule::kLogical:
      return {{a, b}, kBool};
    case Rule::kBits:
      ok = !is_float;
      break;
    case Rule::kShift:
      ok = !is_float && common != kBool;
      break;
  }
  if (!ok) {
    throw std::invalid_argument(StrCat("Binary: ", row.name, " not defined for ", a, " and ", b));
  }
  return {{arg, arg}, result};
}

BinaryKernel::BinaryKernel(const BinaryOption& option, const TensorOption& input_opt,
                           const Buffer& input, const TensorOption& other_opt, const Buffer& other,
                           const TensorOption& out_opt, Buffer& out)
    : BinaryKernel(option, MakeTensor(input_opt, input), MakeTensor(other_opt, other),
                   MakeTensor(out_opt, out)) {}

BinaryKernel::BinaryKernel(const BinaryOption& option, const Tensor& input, const Tensor& other,
                           const Tensor& out)
    : ElementwiseKernel("Binary", {input, other}, out, {"input", "other"}), option_(option) {}

bool BinaryKernel::Verify() const {
  VerifyShapes();
  VerifyOutputType(Types(option_.op_type, input_type(0), input_type(1)).second);
  return true;
}

ElementwiseSpec BinaryKernel::Spec(BinaryType op, DataType a, DataType b) {
  const auto types = Types(op, a, b);
  ElementwiseSpec spec{
      "binary.cl", {types.first.first, types.first.second}, types.second, BuildOption()};
  spec.options.AddDefinition("OP", OpName(op))
      .AddDefinitionAutoType("EW_SIGNED", TypeTraitsHelper::IsSigned(types.first.first));
  // Float expressions that hold for float16 lanes as written (EW_OP16).
  spec.op16 = op == BinaryType::kAdd || op == BinaryType::kSub || op == BinaryType::kMul ||
              op == BinaryType::kDiv || op == BinaryType::kFmax || op == BinaryType::kFmin ||
              op == BinaryType::kCopysign;
  return spec;
}

void BinaryKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const ElementwiseSpec spec = Spec(option_.op_type, input_type(0), input_type(1));
  const float alpha = option_.alpha;
  CompileElementwise(session, spec, [alpha](KernelUnit& unit) { unit.SetArg(alpha); });
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<BinaryKernel, const BinaryOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, Buffer&>("Binary");
};

}  // namespace cl
}  // namespace nerva
