#pragma once

#include <memory>

#include "nerva/kernel/norm_option.h"
#include "nerva/platform/cl/kernel/norm/norm_util.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

// torch.nn.functional.batch_norm(training=True) on (N, C, spatial...)
// ("BatchNormTrain", program "batchnormtrain.cl"): one group of 64 per
// channel computes the batch statistics, normalises with them, stores the
// batch mean and rstd (when given) and writes the running statistics
// updated with momentum to new_running_mean and new_running_var (which may
// alias the running ones). The running statistics may be left out together
// (no update then); weight and bias may be left out. Every statistic and
// parameter is a float tensor of C elements.
class BatchNormTrainKernel : public KernelImpl {
 public:
  BatchNormTrainKernel(const BatchNormTrainOption& option, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& running_mean_opt,
                       const Buffer& running_mean, const TensorOption& running_var_opt,
                       const Buffer& running_var, const TensorOption& weight_opt,
                       const Buffer& weight, const TensorOption& bias_opt, const Buffer& bias,
                       const TensorOption& out_opt, Buffer& out, const TensorOption& save_mean_opt,
                       Buffer& save_mean, const TensorOption& save_rstd_opt, Buffer& save_rstd,
                       const TensorOption& new_mean_opt, Buffer& new_mean,
                       const TensorOption& new_var_opt, Buffer& new_var);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;
  // Per-slice partial sums over many groups of `block` items, a per-channel
  // pass for the statistics, then the mapping.
  void CompileSplit(std::shared_ptr<SessionImpl> session, const ChannelFold& fold,
                    const RunSplit& split, int block);

 private:
  // The per-channel arguments of the statistics pass: running statistics,
  // weight and bias (`inputs`), else the saved and new statistics.
  void AddStatArgs(KernelUnit& unit, long channels, bool inputs) const;
  BatchNormTrainOption option_;
  Tensor input_, running_mean_, running_var_, weight_, bias_, output_, save_mean_, save_rstd_,
      new_mean_, new_var_;
};

}  // namespace cl
}  // namespace nerva
