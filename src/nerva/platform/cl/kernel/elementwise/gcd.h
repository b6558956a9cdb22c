#pragma once

#include <memory>

#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

namespace nerva {
namespace cl {

// torch.gcd of integer tensors with broadcasting ("Gcd", gcd.cl); the inputs promote
// to one integer type. gcd(0, 0) is 0.
class GcdKernel : public ElementwiseKernel {
 public:
  GcdKernel(const TensorOption& input_opt, const Buffer& input, const TensorOption& other_opt,
            const Buffer& other, const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;
};

}  // namespace cl
}  // namespace nerva
