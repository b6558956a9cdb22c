#include "nerva/platform/cl/kernel/elementwise/logit.h"

#include "nerva/platform/cl/module.h"

namespace nerva {
namespace cl {

namespace {
DataType FloatOf(DataType t) {
  return IsFloat(t) ? t : kFloat;
}
}  // namespace

LogitKernel::LogitKernel(const LogitOption& option, const TensorOption& input_opt,
                         const Buffer& input, const TensorOption& out_opt, Buffer& out)
    : ElementwiseKernel("Logit", {MakeTensor(input_opt, input)}, MakeTensor(out_opt, out),
                        {"input"}),
      option_(option) {}

bool LogitKernel::Verify() const {
  VerifyShapes();
  VerifyOutputType(FloatOf(input_type(0)));
  return true;
}

void LogitKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const DataType t = FloatOf(input_type(0));
  ElementwiseSpec spec{"logit.cl", {t}, t, BuildOption(), false};
  spec.options.AddDefinitionAutoType("LOGIT_EPS", option_.eps >= 0.0f);
  const float eps = option_.eps;
  CompileElementwise(session, spec, [eps](KernelUnit& unit) { unit.SetArg(eps); });
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<LogitKernel, const LogitOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("Logit");
};

}  // namespace cl
}  // namespace nerva
