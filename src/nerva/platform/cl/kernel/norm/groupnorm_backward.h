#pragma once

#include <memory>

#include "nerva/kernel/train_option.h"
#include "nerva/platform/cl/kernel/norm/norm_util.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

// Gradients of group_norm from the saved (N x num_groups) mean and rstd
// ("GroupNormBackward", program "groupnorm_backward.cl"): the input gradient
// one group of 64 per (group, batch) (CompileGradX), the weight and bias
// gradients one group per channel (CompileGradWeightBias). An output is
// written when its output_mask entry is set and the caller gives it; the
// weight may be left out.
class GroupNormBackwardKernel : public KernelImpl {
 public:
  GroupNormBackwardKernel(const GroupNormBackwardOption& option, const TensorOption& grad_opt,
                          const Buffer& grad, const TensorOption& input_opt, const Buffer& input,
                          const TensorOption& mean_opt, const Buffer& mean,
                          const TensorOption& rstd_opt, const Buffer& rstd,
                          const TensorOption& weight_opt, const Buffer& weight,
                          const TensorOption& grad_input_opt, Buffer& grad_input,
                          const TensorOption& grad_weight_opt, Buffer& grad_weight,
                          const TensorOption& grad_bias_opt, Buffer& grad_bias);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;
  void CompileGradX(std::shared_ptr<SessionImpl> session);
  void CompileGradWeightBias(std::shared_ptr<SessionImpl> session);

 private:
  BuildOption Options(const RunSplit& split, int block) const;

  GroupNormBackwardOption option_;
  Tensor grad_, input_, mean_, rstd_, weight_;
  GradOutputs out_;
  ChannelFold fold_;
};

}  // namespace cl
}  // namespace nerva
