#include "nerva/platform/cl/kernel/elementwise/masked_fill.h"

#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

MaskedFillKernel::MaskedFillKernel(const MaskedFillOption& option, const TensorOption& input_opt,
                                   const Buffer& input, const TensorOption& mask_opt,
                                   const Buffer& mask, const TensorOption& out_opt, Buffer& out)
    : ElementwiseKernel("MaskedFill", {MakeTensor(input_opt, input), MakeTensor(mask_opt, mask)},
                        MakeTensor(out_opt, out), {"input", "mask"}),
      option_(option) {}

bool MaskedFillKernel::Verify() const {
  VerifyShapes();
  if (input_type(1) != kBool) {
    throw std::invalid_argument(
        StrCat("MaskedFill: mask must be DataType::kBool, got ", input_type(1)));
  }
  VerifyOutputType(input_type(0));
  return true;
}

void MaskedFillKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const DataType t = input_type(0);
  const float value_f = static_cast<float>(option_.value);
  const long value_l = t == kBool ? option_.value != 0 : static_cast<long>(option_.value);
  CompileElementwise(session,
                     ElementwiseSpec{"masked_fill.cl", {t, kBool}, t, BuildOption(), false},
                     [=](KernelUnit& unit) { unit.SetArg(value_f).SetArg(value_l); });
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<MaskedFillKernel, const MaskedFillOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, Buffer&>("MaskedFill");
};

}  // namespace cl
}  // namespace nerva
