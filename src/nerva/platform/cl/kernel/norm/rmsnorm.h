#pragma once

#include <memory>

#include "nerva/kernel/norm_option.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

// RMS normalisation over the trailing `normalized_shape` ("RMSNorm", program
// "rmsnorm.cl", function "rmsnorm"): y = x * rsqrt(mean(x^2) + eps) * w, one
// group of 64 per row, eps as a kernel argument. The weight may be left out.
class RMSNormKernel : public KernelImpl {
 public:
  RMSNormKernel(const RMSNormOption& option, const TensorOption& input_opt, const Buffer& input,
                const TensorOption& weight_opt, const Buffer& weight, const TensorOption& out_opt,
                Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  RMSNormOption option_;
  Tensor input_, weight_, output_;
};

}  // namespace cl
}  // namespace nerva
