#include "nerva/platform/cl/kernel/elementwise/gcd.h"

#include "nerva/platform/cl/module.h"

namespace nerva {
namespace cl {

GcdKernel::GcdKernel(const TensorOption& input_opt, const Buffer& input,
                     const TensorOption& other_opt, const Buffer& other,
                     const TensorOption& out_opt, Buffer& out)
    : ElementwiseKernel("Gcd", {MakeTensor(input_opt, input), MakeTensor(other_opt, other)},
                        MakeTensor(out_opt, out), {"input", "other"}) {}

bool GcdKernel::Verify() const {
  VerifyShapes();
  const DataType t = PromoteTypes({input_type(0), input_type(1)});
  if (IsFloat(t) || t == kBool) ThrowUnsupportedTypes("gcd");
  VerifyOutputType(t);
  return true;
}

void GcdKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const DataType t = PromoteTypes({input_type(0), input_type(1)});
  CompileElementwise(session, ElementwiseSpec{"gcd.cl", {t, t}, t, BuildOption(), false},
                     [](KernelUnit&) {});
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<GcdKernel, const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("Gcd");
};

}  // namespace cl
}  // namespace nerva
