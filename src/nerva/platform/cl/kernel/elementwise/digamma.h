#pragma once

#include <memory>

#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

namespace nerva {
namespace cl {

// torch.digamma ("Digamma", digamma.cl), single precision: psi(+-0) is -+inf, a
// negative integer gives NaN. Integer and bool inputs compute and return float.
class DigammaKernel : public ElementwiseKernel {
 public:
  DigammaKernel(const TensorOption& input_opt, const Buffer& input, const TensorOption& out_opt,
                Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;
};

}  // namespace cl
}  // namespace nerva
