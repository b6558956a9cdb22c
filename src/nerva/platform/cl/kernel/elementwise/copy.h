#pragma once

#include <memory>

#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

namespace nerva {
namespace cl {

// out = input converted to out's element type, any view of either ("Copy", copy.cl;
// the Cast front-end). Shapes must be equal. Conversions follow PyTorch: between
// integer types modular (300 into int8 is 44), into floating types round to
// nearest even, anything into bool is "nonzero" (NaN included). Floating point
// into integers rounds toward zero; where PyTorch's result is undefined the device
// saturates: values beyond the type's range give its largest or smallest value
// and NaN gives 0. bfloat16 and fp8 need the device's extensions; double is not
// offered.
class CastKernel : public ElementwiseKernel {
 public:
  CastKernel(const TensorOption& input_opt, const Buffer& input, const TensorOption& out_opt,
             Buffer& out);
  CastKernel(const Tensor& input, const Tensor& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;
};

}  // namespace cl
}  // namespace nerva
