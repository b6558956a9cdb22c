#include "nerva/platform/cl/kernel/norm/batchnormbackward.h"

#include <stdexcept>

#include "nerva/platform/cl/kernel/norm/batchnorm.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

BatchNormBackwardKernel::BatchNormBackwardKernel(
    const BatchNormBackwardOption& option, const TensorOption& grad_opt, const Buffer& grad,
    const TensorOption& input_opt, const Buffer& input, const TensorOption& weight_opt,
    const Buffer& weight, const TensorOption& running_mean_opt, const Buffer& running_mean,
    const TensorOption& running_var_opt, const Buffer& running_var,
    const TensorOption& save_mean_opt, const Buffer& save_mean, const TensorOption& save_rstd_opt,
    const Buffer& save_rstd, const TensorOption& grad_input_opt, Buffer& grad_input,
    const TensorOption& grad_weight_opt, Buffer& grad_weight, const TensorOption& grad_bias_opt,
    Buffer& grad_bias)
    : KernelImpl("BatchNormBackward"),
      option_(option),
      grad_(grad_opt, grad, 0),
      input_(input_opt, input, 0),
      weight_(OptionalTensor(weight_opt, weight)),
      running_mean_(OptionalTensor(running_mean_opt, running_mean)),
      running_var_(OptionalTensor(running_var_opt, running_var)),
      save_mean_(OptionalTensor(save_mean_opt, save_mean)),
      save_rstd_(OptionalTensor(save_rstd_opt, save_rstd)),
      out_{option.output_mask, OptionalTensor(grad_input_opt, grad_input),
           OptionalTensor(grad_weight_opt, grad_weight), OptionalTensor(grad_bias_opt, grad_bias)} {
}

bool BatchNormBackwardKernel::Verify() const {
  CheckPresent(name(), "input", input_);
  CheckNormType(name(), "input", input_);
  CheckLike(name(), "grad_output", grad_, "input", input_);
  const ChannelFold fold = FoldChannels(name(), input_);
  const bool train = option_.training;
  CheckPresent(name(), train ? "save_mean" : "running_mean", Mean());
  CheckPresent(name(), train ? "save_rstd" : "running_var", Spread());
  CheckBatchNormParam(name(), "mean", Mean(), fold.channels);
  CheckBatchNormParam(name(), train ? "rstd" : "var", Spread(), fold.channels);
  if (weight_.defined()) CheckBatchNormParam(name(), "weight", weight_, fold.channels);
  if (out_.WritesInput()) {
    CheckOutput(name(), "grad_input", out_.input, input_.shape().sizes(), input_.dtype());
  }
  if (out_.WritesWeight()) {
    CheckBatchNormParam(name(), "grad_weight", out_.weight, fold.channels);
    CheckContiguous(name(), "grad_weight", out_.weight);
  }
  if (out_.WritesBias()) {
    CheckBatchNormParam(name(), "grad_bias", out_.bias, fold.channels);
    CheckContiguous(name(), "grad_bias", out_.bias);
  }
  return true;
}

void BatchNormBackwardKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const ChannelFold fold = FoldChannels(name(), input_);
  if (ElementCount(input_) == 0) return;
  if (!out_.WritesInput() && !out_.WritesWeight() && !out_.WritesBias()) return;
  input_ = MakeContiguous(*this, session, input_);
  grad_ = MakeContiguous(*this, session, grad_);
  const Tensor mean = MakeContiguous(*this, session, Mean());
  const Tensor spread = MakeContiguous(*this, session, Spread());
  if (weight_.defined()) weight_ = MakeContiguous(*this, session, weight_);
  const RunSplit split = SplitRun(fold.spatial);
  const long floats = fold.batch * split.vectors * split.vec;
  // The second pass of the input gradient reads x (training only) and dy again.
  const int block = NormBlockSize(*session, fold.channels);
  const bool cache_x =
      out_.WritesInput() && option_.training && RowCacheFits(*session, floats, split.vec, block);
  const bool cache_g =
      out_.WritesInput() && RowCacheFits(*session, (cache_x ? 2 : 1) * floats, split.vec, block);
  BuildOption options = NormBuildOption(input_.dtype(), split, block);
  options.AddOptionIf(option_.training, "-DTRAINING")
      .AddOptionIf(weight_.defined(), "-DUSE_WEIGHT")
      .AddOptionIf(out_.WritesInput(), "-DSAVE_GRAD_INPUT")
      .AddOptionIf(out_.WritesWeight(), "-DSAVE_WEIGHT")
      .AddOptionIf(out_.WritesBias(), "-DSAVE_BIAS")
      .AddOptionIf(cache_x, "-DUSE_INPUT_SHARE_MEMORY")
      .AddOptionIf(cache_g, "-DUSE_GRAD_SHARE_MEMORY");
  auto unit = MakeSubKernel(
      session, "BatchNormBackward::batchnormbackward", NormSources("batchnormbackward.cl"), options,
      option_.training ? "batch_norm_backward_with_train" : "batch_norm_backward");
  const std::vector<long> view{fold.batch, fold.channels, fold.spatial};
  const std::vector<long> per_channel{fold.channels};
  if (cache_x) unit->SetArg(LocalMemory{static_cast<size_t>(floats) * 4});
  if (cache_g) unit->SetArg(LocalMemory{static_cast<size_t>(floats) * 4});
  unit->SetArg(ContiguousView(grad_, view)).SetArg(ContiguousView(input_, view));
  if (weight_.defined()) unit->SetArg(ContiguousView(weight_, per_channel));
  unit->SetArg(ContiguousView(mean, per_channel)).SetArg(ContiguousView(spread, per_channel));
  if (out_.WritesInput()) unit->SetArg(ContiguousView(out_.input, view));
  if (out_.WritesWeight()) unit->SetArg(ContiguousView(out_.weight, per_channel));
  if (out_.WritesBias()) unit->SetArg(ContiguousView(out_.bias, per_channel));
  unit->SetArg(static_cast<int>(split.vectors))
      .SetArg(static_cast<int>(fold.batch))
      .SetArg(1.0f / static_cast<float>(fold.batch * fold.spatial))
      .SetArg(option_.eps)
      .SetGlobal({static_cast<size_t>(block), static_cast<size_t>(fold.channels)})
      .SetLocal({static_cast<size_t>(block), 1});
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<BatchNormBackwardKernel, const BatchNormBackwardOption&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&, const TensorOption&,
                 const Buffer&, const TensorOption&, Buffer&, const TensorOption&, Buffer&,
                 const TensorOption&, Buffer&>("BatchNormBackward");
};

}  // namespace cl
}  // namespace nerva
