#include "nerva/platform/cl/kernel/elementwise/activation.h"

#include <stdexcept>

#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/platform/cl/util.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {
const char* const kOpCodes[] = {"CELU",      "ELU",          "RELU",       "RELU6",
                                "SIGMOID",   "HARD_SIGMOID", "HARD_SWISH", "MISH",
                                "HARD_TANH", "LEAKY_RELU",   "GELU",       "GELUAPPROXIMATETANH",
                                "SILU",      "SELU",         "SWISH",      "SRELU"};
constexpr int kOpCount = sizeof(kOpCodes) / sizeof(kOpCodes[0]);

[[noreturn]] void ThrowUnsupported(int op_type) {
  throw std::invalid_argument(StrCat("Unsupport activation operator type: ", op_type));
}
}  // namespace

std::string GetOpCode(int op_type) {
  if (op_type < 0 || op_type >= kOpCount) ThrowUnsupported(op_type);
  return kOpCodes[op_type];
}

DataType GetConvType(int op_type, DataType input) {
  if (op_type < 0 || op_type >= kOpCount) ThrowUnsupported(op_type);
  if (op_type == kRelu || op_type == kRelu6) {
    return TypeTraitsHelper::IsFloattingPoint(input) ? kFloat : input;
  }
  return kFloat;
}

ActivationKernel::ActivationKernel(const ActivationOption& option, const Tensor& x, const Tensor& y)
    : KernelImpl("Activation"), option_(option), x_(x), y_(y) {}

bool ActivationKernel::Verify() const {
  if (!x_.defined()) throw std::runtime_error("Activation x is empty!");
  if (!y_.defined()) throw std::runtime_error("Activation y is empty!");
  if (!x_.is_contiguous()) throw std::runtime_error("Activation x must be contiguous!");
  if (!y_.is_contiguous()) throw std::runtime_error("Activation y must be contiguous!");
  if (x_.shape().size() <= 0) {
    throw std::runtime_error(StrCat("Activation x has no elements: shape ", x_.shape()));
  }
  return true;
}

void ActivationKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const long n = x_.shape().size();
  const Tensor x = x_.Reshape({n});
  const Tensor y = y_.Reshape({n});
  // In place (y aliasing x) no vector may overlap another: see ElementwiseVecSize.
  const int vec_size = ElementwiseVecSize(4, n, SharesMemory(x_, y_));
  BuildOption options;
  options.AddDefinition("OP", GetOpCode(option_.op_type))
      .AddDefinitionAutoType("VEC_SIZE", vec_size)
      .AddDefinitionAutoType("VEC_SIZE_LEFTOVER", static_cast<int>(n % vec_size))
      .AddDefinition("CONV_DTYPE", GetDataTypeCode(GetConvType(option_.op_type, x.dtype())))
      .AddDefinition("DTYPE", GetDataTypeCode(x.dtype()))
      .AddDefinition("OUT_DTYPE", GetDataTypeCode(y.dtype()));
  const float alpha = option_.alpha;
  const float beta = option_.beta;
  MakeSubKernel(session, ConcatenateStrings(name(), "test"),
                {"common.h", "math.h", "activation.cl"}, options, name())
      ->SetArgs(ClTensor(x, vec_size), ClTensor(y, vec_size), alpha, beta, 1.0f / alpha,
                1.0f / beta)
      .SetGlobal({static_cast<size_t>(n)}, {static_cast<size_t>(vec_size)});
}

ActivationKernelV1::ActivationKernelV1(const ActivationOption& option, const TensorOption& x_opt,
                                       const Buffer& x, const TensorOption& y_opt, Buffer& y)
    : ActivationKernel(option, Tensor(x_opt, x, 0), Tensor(y_opt, y, 0)) {}

NERVA_STATIC_REGISTER {
  auto& module = ClModule::singleton();
  module.AddKernel<ActivationKernel, const ActivationOption&, const Tensor&, const Tensor&>(
      "Activation");
  module.AddKernel<ActivationKernelV1, const ActivationOption&, const TensorOption&, const Buffer&,
                   const TensorOption&, Buffer&>("ActivationV1");
};

}  // namespace cl
}  // namespace nerva
