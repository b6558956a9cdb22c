#include "nerva/platform/cl/kernel/elementwise/unary.h"

#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

// How an operator's types follow from its input's.
enum class Rule {
  kToFloat,   // integers and bool compute and return float
  kKeep,      // keeps the input type, bool included
  kKeepNum,   // keeps the input type, bool rejected
  kFloatIn,   // floating-point input only
  kBits,      // integers and bool
  kPredicate  // any input, bool result
};

struct Row {
  const char* name;
  Rule rule;
};

const Row kRows[] = {
    {"ABS", Rule::kKeepNum},           {"NEG", Rule::kKeepNum},     {"EXP", Rule::kToFloat},
    {"EXP2", Rule::kToFloat},          {"EXPM1", Rule::kToFloat},   {"LOG", Rule::kToFloat},
    {"LOG2", Rule::kToFloat},          {"LOG10", Rule::kToFloat},   {"LOG1P", Rule::kToFloat},
    {"SQRT", Rule::kToFloat},          {"RSQRT", Rule::kToFloat},   {"SIN", Rule::kToFloat},
    {"COS", Rule::kToFloat},           {"TAN", Rule::kToFloat},     {"ASIN", Rule::kToFloat},
    {"ACOS", Rule::kToFloat},          {"ATAN", Rule::kToFloat},    {"SINH", Rule::kToFloat},
    {"COSH", Rule::kToFloat},          {"TANH", Rule::kToFloat},    {"ASINH", Rule::kToFloat},
    {"ACOSH", Rule::kToFloat},         {"ATANH", Rule::kToFloat},   {"ERF", Rule::kToFloat},
    {"ERFC", Rule::kToFloat},          {"ERFINV", Rule::kToFloat},  {"CEIL", Rule::kKeepNum},
    {"FLOOR", Rule::kKeepNum},         {"ROUND", Rule::kKeepNum},   {"TRUNC", Rule::kKeepNum},
    {"FRAC", Rule::kFloatIn},          {"SIGN", Rule::kKeep},       {"RECIPROCAL", Rule::kToFloat},
    {"SQUARE", Rule::kKeepNum},        {"LGAMMA", Rule::kToFloat},  {"BITWISE_NOT", Rule::kBits},
    {"LOGICAL_NOT", Rule::kPredicate}, {"ISNAN", Rule::kPredicate}, {"ISINF", Rule::kPredicate},
    {"ISFINITE", Rule::kPredicate},
};
constexpr int kRowCount = sizeof(kRows) / sizeof(kRows[0]);

const Row& RowOf(UnaryType op) {
  const int code = static_cast<int>(op);
  if (code < 0 || code >= kRowCount) {
    throw std::invalid_argument(StrCat("Unary: unsupported operator type ", code));
  }
  return kRows[code];
}

}  // namespace

const char* UnaryKernel::OpName(UnaryType op) {
  return RowOf(op).name;
}

std::pair<DataType, DataType> UnaryKernel::Types(UnaryType op, DataType input) {
  const Row& row = RowOf(op);
  const bool is_float = IsFloat(input);
  const auto reject = [&]() -> std::pair<DataType, DataType> {
    throw std::invalid_argument(StrCat("Unary: ", row.name, " not defined for ", input));
  };
  switch (row.rule) {
    case Rule::kToFloat: {
      const DataType t = is_float ? input : kFloat;
      return {t, t};
    }
    case Rule::kKeep:
      return {input, input};
    case Rule::kKeepNum:
      return input == kBool ? reject() : std::make_pair(input, input);
    case Rule::kFloatIn:
      return is_float ? std::make_pair(input, input) : reject();
    case Rule::kBits:
      return is_float ? reject() : std::make_pair(input, input);
    case Rule::kPredicate:
      return {input, kBool};
  }
  return reject();
}

UnaryKernel::UnaryKernel(const UnaryOption& option, const TensorOption& input_opt,
                         const Buffer& input, const TensorOption& out_opt, Buffer& out)
    : ElementwiseKernel("Unary", {MakeTensor(input_opt, input)}, MakeTensor(out_opt, out),
                        {"input"}),
      option_(option) {}

bool UnaryKernel::Verify() const {
  VerifyShapes();
  VerifyOutputType(Types(option_.op_type, input_type(0)).second);
  return true;
}

ElementwiseSpec UnaryKernel::Spec(UnaryType op, DataType input) {
  const auto types = Types(op, input);
  ElementwiseSpec spec{"unary.cl", {types.first}, types.second, BuildOption()};
  spec.options.AddDefinition("OP", OpName(op)).AddDefinitionAutoType("BOOL_ARG", input == kBool);
  // Float expressions that hold for float16 lanes as written (EW_OP16).
  spec.op16 = op == UnaryType::kAbs || op == UnaryType::kNeg || op == UnaryType::kExp ||
              op == UnaryType::kExp2 || op == UnaryType::kSqrt || op == UnaryType::kReciprocal ||
              op == UnaryType::kSquare;
  return spec;
}

void UnaryKernel::Compile(std::shared_ptr<SessionImpl> session) {
  CompileElementwise(session, Spec(option_.op_type, input_type(0)), [](KernelUnit&) {});
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<UnaryKernel, const UnaryOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("Unary");
};

}  // namespace cl
}  // namespace nerva
