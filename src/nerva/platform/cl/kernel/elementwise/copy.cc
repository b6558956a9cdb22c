#include "nerva/platform/cl/kernel/elementwise/copy.h"

#include "nerva/platform/cl/module.h"

namespace nerva {
namespace cl {

CastKernel::CastKernel(const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out)
    : CastKernel(MakeTensor(input_opt, input), MakeTensor(out_opt, out)) {}

CastKernel::CastKernel(const Tensor& input, const Tensor& out)
    : ElementwiseKernel("Copy", {input}, out, {"input"}) {}

bool CastKernel::Verify() const {
  VerifyShapes();
  return true;
}

void CastKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const DataType in = input_type(0);
  ElementwiseSpec spec{"copy.cl", {in}, in, BuildOption(), false};
  spec.op16 = true;  // float to float or half in whole vectors on CPU devices
  CompileElementwise(session, spec, [](KernelUnit&) {});
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<CastKernel, const TensorOption&, const Buffer&, const TensorOption&, Buffer&>(
          "Copy");
};

}  // namespace cl
}  // namespace nerva
