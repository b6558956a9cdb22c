#pragma once

#include <memory>
#include <string>

#include "nerva/kernel/norm_option.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

// torch.nn.functional.group_norm on (N, C, spatial...) ("GroupNorm", program
// "groupnorm.cl"): one group of 64 per (group, batch) over its channels'
// spatial runs, eps as a kernel argument. Weight and bias (C elements) may
// be left out.
class GroupNormKernel : public KernelImpl {
 public:
  GroupNormKernel(const GroupNormOption& option, const TensorOption& input_opt, const Buffer& input,
                  const TensorOption& weight_opt, const Buffer& weight,
                  const TensorOption& bias_opt, const Buffer& bias, const TensorOption& out_opt,
                  Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 protected:
  GroupNormKernel(std::string name, const GroupNormOption& option, Tensor input, Tensor weight,
                  Tensor bias, Tensor output, Tensor mean, Tensor rstd);

 private:
  GroupNormOption option_;
  Tensor input_, weight_, bias_, output_, mean_, rstd_;
};

// "GroupNormWithTraining": also stores the (N x num_groups) mean and rstd.
class GroupNormWithTrainingKernel : public GroupNormKernel {
 public:
  GroupNormWithTrainingKernel(const GroupNormOption& option, const TensorOption& input_opt,
                              const Buffer& input, const TensorOption& weight_opt,
                              const Buffer& weight, const TensorOption& bias_opt,
                              const Buffer& bias, const TensorOption& out_opt, Buffer& out,
                              const TensorOption& mean_opt, Buffer& mean,
                              const TensorOption& rstd_opt, Buffer& rstd);
};

// Checks num_groups against the channel count: a count below 1 throws
// std::invalid_argument, channels not divisible by it std::runtime_error.
void CheckNumGroups(const std::string& op, int num_groups, long channels);

}  // namespace cl
}  // namespace nerva
