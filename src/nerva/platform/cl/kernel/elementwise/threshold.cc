#include "nerva/platform/cl/kernel/elementwise/threshold.h"

#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

ThresholdKernel::ThresholdKernel(const ThresholdOption& option, const TensorOption& input_opt,
                                 const Buffer& input, const TensorOption& out_opt, Buffer& out)
    : ElementwiseKernel("Threshold", {MakeTensor(input_opt, input)}, MakeTensor(out_opt, out),
                        {"input"}),
      option_(option) {}

bool ThresholdKernel::Verify() const {
  VerifyShapes();
  if (input_type(0) == kBool) ThrowUnsupportedTypes("threshold");
  VerifyOutputType(input_type(0));
  return true;
}

void ThresholdKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const DataType t = input_type(0);
  const float threshold_f = static_cast<float>(option_.threshold);
  const float value_f = static_cast<float>(option_.value);
  const long threshold_l = static_cast<long>(option_.threshold);
  const long value_l = static_cast<long>(option_.value);
  CompileElementwise(session, ElementwiseSpec{"threshold.cl", {t}, t, BuildOption(), false},
                     [=](KernelUnit& unit) {
                       unit.SetArg(threshold_f).SetArg(value_f).SetArg(threshold_l).SetArg(value_l);
                     });
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<ThresholdKernel, const ThresholdOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("Threshold");
};

}  // namespace cl
}  // namespace nerva
