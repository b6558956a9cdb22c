#pragma once

#include <memory>
#include <string>

#include "nerva/kernel/norm_option.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

// torch.nn.functional.batch_norm(training=False) on (N, C, spatial...)
// ("BatchNorm", program "batchnorm.cl"): one item per vector with the
// running statistics. Mean and var are required, weight and bias may be left
// out; all four are float tensors of C elements.
class BatchNormKernel : public KernelImpl {
 public:
  BatchNormKernel(const BatchNormOption& option, const TensorOption& input_opt, const Buffer& input,
                  const TensorOption& mean_opt, const Buffer& mean, const TensorOption& var_opt,
                  const Buffer& var, const TensorOption& weight_opt, const Buffer& weight,
                  const TensorOption& bias_opt, const Buffer& bias, const TensorOption& out_opt,
                  Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  BatchNormOption option_;
  Tensor input_, mean_, var_, weight_, bias_, output_;
};

// The checks of a per-channel batch-norm statistic or parameter: float
// ("BatchNorm <what> tensor must be float type."), C elements.
void CheckBatchNormParam(const std::string& op, const std::string& what, const Tensor& tensor,
                         long channels);

}  // namespace cl
}  // namespace nerva
