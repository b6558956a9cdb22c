#include "nerva/platform/cl/kernel/elementwise/digamma.h"

#include "nerva/platform/cl/module.h"

namespace nerva {
namespace cl {

DigammaKernel::DigammaKernel(const TensorOption& input_opt, const Buffer& input,
                             const TensorOption& out_opt, Buffer& out)
    : ElementwiseKernel("Digamma", {MakeTensor(input_opt, input)}, MakeTensor(out_opt, out),
                        {"input"}) {}

bool DigammaKernel::Verify() const {
  VerifyShapes();
  VerifyOutputType(IsFloat(input_type(0)) ? input_type(0) : kFloat);
  return true;
}

void DigammaKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const DataType t = IsFloat(input_type(0)) ? input_type(0) : kFloat;
  CompileElementwise(session, ElementwiseSpec{"digamma.cl", {t}, t, BuildOption(), false},
                     [](KernelUnit&) {});
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<DigammaKernel, const TensorOption&, const Buffer&, const TensorOption&, Buffer&>(
          "Digamma");
};

}  // namespace cl
}  // namespace nerva
