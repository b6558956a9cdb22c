#pragma once

#include <memory>

#include "nerva/kernel/norm_option.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

// torch.nn.functional.instance_norm with the batch statistics on (N, C,
// spatial...) ("InstanceNorm", program "instancenorm.cl", function
// "instance_norm"): one group of 64 per (channel, batch) spatial run, eps as
// a kernel argument. Weight and bias (C elements) may be left out; at least
// two spatial elements are required.
class InstanceNormKernel : public KernelImpl {
 public:
  InstanceNormKernel(const InstanceNormOption& option, const TensorOption& input_opt,
                     const Buffer& input, const TensorOption& weight_opt, const Buffer& weight,
                     const TensorOption& bias_opt, const Buffer& bias, const TensorOption& out_opt,
                     Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  InstanceNormOption option_;
  Tensor input_, weight_, bias_, output_;
};

}  // namespace cl
}  // namespace nerva
