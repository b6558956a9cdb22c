#include "nerva/platform/cl/kernel/norm/groupnorm_backward.h"

#include <stdexcept>

#include "nerva/platform/cl/kernel/norm/groupnorm.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

GroupNormBackwardKernel::GroupNormBackwardKernel(
    const GroupNormBackwardOption& option, const TensorOption& grad_opt, const Buffer& grad,
    const TensorOption& input_opt, const Buffer& input, const TensorOption& mean_opt,
    const Buffer& mean, const TensorOption& rstd_opt, const Buffer& rstd,
    const TensorOption& weight_opt, const Buffer& weight, const TensorOption& grad_input_opt,
    Buffer& grad_input, const TensorOption& grad_weight_opt, Buffer& grad_weight,
    const TensorOption& grad_bias_opt, Buffer& grad_bias)
    : KernelImpl("GroupNormBackward"),
      option_(option),
      grad_(grad_opt, grad, 0),
      input_(input_opt, input, 0),
      mean_(mean_opt, mean, 0),
      rstd_(rstd_opt, rstd, 0),
      weight_(OptionalTensor(weight_opt, weight)),
      out_{option.output_mask, OptionalTensor(grad_input_opt, grad_input),
           OptionalTensor(grad_weight_opt, grad_weight), OptionalTensor(grad_bias_opt, grad_bias)} {
}

bool GroupNormBackwardKernel::Verify() const {
  CheckPresent(name(), "input", input_);
  CheckNormType(name(), "input", input_);
  CheckLike(name(), "grad_output", grad_, "input", input_);
  const ChannelFold fold = FoldChannels(name(), input_);
  CheckNumGroups(name(), option_.num_groups, fold.channels);
  const long stats = fold.batch * option_.num_groups;
  for (const Tensor* t : {&mean_, &rstd_}) {
    const char* arg = t == &mean_ ? "mean" : "rstd";
    CheckPresent(name(), arg, *t);
    CheckNormType(name(), arg, *t);
    if (ElementCount(*t) != stats) {
      throw std::runtime_error(
          StrCat(name(), ": ", arg, " has shape ", t->shape(), " but needs ", stats, " elements"));
    }
  }
  if (weight_.defined()) CheckChannelTensor(name(), "weight", weight_, fold.channels);
  if (out_.WritesInput()) {
    CheckOutput(name(), "grad_input", out_.input, input_.shape().sizes(), input_.dtype());
  }
  if (out_.WritesWeight()) CheckStatOutput(name(), "grad_weight", out_.weight, fold.channels);
  if (out_.WritesBias()) CheckStatOutput(name(), "grad_bias", out_.bias, fold.channels);
  return true;
}

void GroupNormBackwardKernel::Compile(std::shared_ptr<SessionImpl> session) {
  fold_ = FoldChannels(name(), input_);
  if (ElementCount(input_) == 0) return;
  input_ = MakeContiguous(*this, session, input_);
  grad_ = MakeContiguous(*this, session, grad_);
  mean_ = MakeContiguous(*this, session, mean_);
  rstd_ = MakeContiguous(*this, session, rstd_);
  if (weight_.defined()) weight_ = MakeContiguous(*this, session, weight_);
  if (out_.WritesInput()) CompileGradX(session);
  if (out_.WritesWeight() || out_.WritesBias()) CompileGradWeightBias(session);
}

BuildOption GroupNormBackwardKernel::Options(const RunSplit& split, int block) const {
  BuildOption options = NormBuildOption(input_.dtype(), split, block);
  options.AddDefinition("MEAN_DTYPE", GetDataTypeCode(mean_.dtype()))
      .AddDefinition("RSTD_DTYPE", GetDataTypeCode(rstd_.dtype()));
  return options;
}

void GroupNormBackwardKernel::CompileGradX(std::shared_ptr<SessionImpl> session) {
  const long groups = option_.num_groups, per_group = fold_.channels / groups;
  const RunSplit split = SplitRun(fold_.spatial);
  const long floats = per_group * split.vectors * split.vec;
  const int block = NormBlockSize(*session, groups * fold_.batch);
  const bool cache_x = RowCacheFits(*session, floats, split.vec, block);
  const bool cache_g = cache_x && RowCacheFits(*session, 2 * floats, split.vec, block);
  BuildOption options = Options(split, block);
  AddTensorSwitch(options, weight_, "USE_WEIGHT", "DTYPE_WEIGHT");
  options.AddOptionIf(cache_x, "-DUSE_INPUT_SHARE_MEMORY")
      .AddOptionIf(cache_g, "-DUSE_GRAD_SHARE_MEMORY");
  auto unit =
      MakeSubKernel(session, "GroupNormBackward::grad_x", NormSources("groupnorm_backward.cl"),
                    options, "groupnorm_backward_grad_x");
  const std::vector<long> view{fold_.batch, fold_.channels, fold_.spatial};
  if (cache_x) unit->SetArg(LocalMemory{static_cast<size_t>(floats) * 4});
  if (cache_g) unit->SetArg(LocalMemory{static_cast<size_t>(floats) * 4});
  unit->SetArg(ContiguousView(grad_, view))
      .SetArg(ContiguousView(input_, view))
      .SetArg(ContiguousView(mean_, {fold_.batch, groups}))
      .SetArg(ContiguousView(rstd_, {fold_.batch, groups}));
  if (weight_.defined()) unit->SetArg(ContiguousView(weight_, {fold_.channels}));
  unit->SetArg(ContiguousView(out_.input, view))
      .SetArg(static_cast<int>(groups))
      .SetArg(static_cast<int>(per_group))
      .SetArg(static_cast<int>(split.vectors))
      .SetArg(1.0f / static_cast<float>(per_group * fold_.spatial))
      .SetGlobal({static_cast<size_t>(block), static_cast<size_t>(groups),
                  static_cast<size_t>(fold_.batch)})
      .SetLocal({static_cast<size_t>(block), 1, 1});
}

void GroupNormBackwardKernel::CompileGradWeightBias(std::shared_ptr<SessionImpl> session) {
  const long groups = option_.num_groups, per_group = fold_.channels / groups;
  const RunSplit split = SplitRun(fold_.spatial);
  const int block = NormBlockSize(*session, fold_.channels);
  BuildOption options = Options(split, block);
  options.AddOption("-DGRAD_WEIGHT_BIAS");
  const Tensor none;
  AddTensorSwitch(options, out_.WritesWeight() ? out_.weight : none, "SAVE_WEIGHT", "DTYPE_SCALE");
  AddTensorSwitch(options, out_.WritesBias() ? out_.bias : none, "SAVE_BIAS", "DTYPE_BIAS");
  auto unit =
      MakeSubKernel(session, "GroupNormBackward::grad_wb", NormSources("groupnorm_backward.cl"),
                    options, "groupnorm_backward_grad_wb");
  const std::vector<long> view{fold_.batch, fold_.channels, fold_.spatial};
  unit->SetArg(ContiguousView(grad_, view))
      .SetArg(ContiguousView(input_, view))
      .SetArg(ContiguousView(mean_, {fold_.batch, groups}))
      .SetArg(ContiguousView(rstd_, {fold_.batch, groups}));
  if (out_.WritesWeight()) unit->SetArg(ContiguousView(out_.weight, {fold_.channels}));
  if (out_.WritesBias()) unit->SetArg(ContiguousView(out_.bias, {fold_.channels}));
  unit->SetArg(static_cast<int>(fold_.batch))
      .SetArg(static_cast<int>(per_group))
      .SetArg(static_cast<int>(split.vectors))
      .SetGlobal({static_cast<size_t>(block), static_cast<size_t>(fold_.channels)})
      .SetLocal({static_cast<size_t>(block), 1});
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<GroupNormBackwardKernel, const GroupNormBackwardOption&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&, const TensorOption&,
                 const Buffer&, const TensorOption&, Buffer&, const TensorOption&, Buffer&,
                 const TensorOption&, Buffer&>("GroupNormBackward");
};

}  // namespace cl
}  // namespace nerva
