#pragma once

#include <memory>

#include "nerva/kernel/train_option.h"
#include "nerva/platform/cl/kernel/norm/norm_util.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

// Gradients of batch_norm ("BatchNormBackward", program
// "batchnormbackward.cl"): with option.training the saved batch mean and
// rstd ("batch_norm_backward_with_train"), otherwise the running mean and var
// with option.eps ("batch_norm_backward"); the statistics the mode does not
// use may be left out, as may the weight. One group of 64 per channel. An
// output is written when its output_mask entry is set and the caller gives
// it; statistics, weight and the weight and bias gradients are float.
class BatchNormBackwardKernel : public KernelImpl {
 public:
  BatchNormBackwardKernel(const BatchNormBackwardOption& option, const TensorOption& grad_opt,
                          const Buffer& grad, const TensorOption& input_opt, const Buffer& input,
                          const TensorOption& weight_opt, const Buffer& weight,
                          const TensorOption& running_mean_opt, const Buffer& running_mean,
                          const TensorOption& running_var_opt, const Buffer& running_var,
                          const TensorOption& save_mean_opt, const Buffer& save_mean,
                          const TensorOption& save_rstd_opt, const Buffer& save_rstd,
                          const TensorOption& grad_input_opt, Buffer& grad_input,
                          const TensorOption& grad_weight_opt, Buffer& grad_weight,
                          const TensorOption& grad_bias_opt, Buffer& grad_bias);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  // The mean and var (or rstd) the mode reads.
  const Tensor& Mean() const { return option_.training ? save_mean_ : running_mean_; }
  const Tensor& Spread() const { return option_.training ? save_rstd_ : running_var_; }

  BatchNormBackwardOption option_;
  Tensor grad_, input_, weight_, running_mean_, running_var_, save_mean_, save_rstd_;
  GradOutputs out_;
};

}  // namespace cl
}  // namespace nerva
