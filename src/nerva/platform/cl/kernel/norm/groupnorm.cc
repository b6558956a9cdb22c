#include "nerva/platform/cl/kernel/norm/groupnorm.h"

#include <stdexcept>

#include "nerva/platform/cl/kernel/norm/norm_util.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

void CheckNumGroups(const std::string& op, int num_groups, long channels) {
  if (num_groups < 1) {
    throw std::invalid_argument(StrCat(op, ": num_groups must be positive, got ", num_groups));
  }
  if (channels % num_groups != 0) {
    throw std::runtime_error(
        StrCat(op, ": ", channels, " channels are not divisible by ", "num_groups ", num_groups));
  }
}

GroupNormKernel::GroupNormKernel(const GroupNormOption& option, const TensorOption& input_opt,
                                 const Buffer& input, const TensorOption& weight_opt,
                                 const Buffer& weight, const TensorOption& bias_opt,
                                 const Buffer& bias, const TensorOption& out_opt, Buffer& out)
    : GroupNormKernel("GroupNorm", option, Tensor(input_opt, input, 0),
                      OptionalTensor(weight_opt, weight), OptionalTensor(bias_opt, bias),
                      Tensor(out_opt, out, 0), Tensor(), Tensor()) {}

GroupNormKernel::GroupNormKernel(std::string name, const GroupNormOption& option, Tensor input,
                                 Tensor weight, Tensor bias, Tensor output, Tensor mean,
                                 Tensor rstd)
    : KernelImpl(std::move(name)),
      option_(option),
      input_(std::move(input)),
      weight_(std::move(weight)),
      bias_(std::move(bias)),
      output_(std::move(output)),
      mean_(std::move(mean)),
      rstd_(std::move(rstd)) {}

bool GroupNormKernel::Verify() const {
  CheckPresent(name(), "input", input_);
  CheckNormType(name(), "input", input_);
  const ChannelFold fold = FoldChannels(name(), input_);
  CheckNumGroups(name(), option_.num_groups, fold.channels);
  CheckOutput(name(), "output", output_, input_.shape().sizes(), input_.dtype());
  if (weight_.defined()) CheckChannelTensor(name(), "weight", weight_, fold.channels);
  if (bias_.defined()) CheckChannelTensor(name(), "bias", bias_, fold.channels);
  if (name() == "GroupNormWithTraining") {
    CheckStatOutput(name(), "mean", mean_, fold.batch * option_.num_groups);
    CheckStatOutput(name(), "rstd", rstd_, fold.batch * option_.num_groups);
  }
  return true;
}

void GroupNormKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const ChannelFold fold = FoldChannels(name(), input_);
  if (ElementCount(input_) == 0) return;
  input_ = MakeContiguous(*this, session, input_);
  if (weight_.defined()) weight_ = MakeContiguous(*this, session, weight_);
  if (bias_.defined()) bias_ = MakeContiguous(*this, session, bias_);
  const long groups = option_.num_groups, per_group = fold.channels / groups;
  const RunSplit split = SplitRun(fold.spatial);
  const long cached = per_group * split.vectors * split.vec;
  const int block = NormBlockSize(*session, groups * fold.batch);
  const bool share = RowCacheFits(*session, cached, split.vec, block);
  BuildOption options = NormBuildOption(input_.dtype(), split, block);
  AddTensorSwitch(options, weight_, "USE_SCALE", "DTYPE_SCALE");
  AddTensorSwitch(options, bias_, "USE_BIAS", "DTYPE_BIAS");
  AddTensorSwitch(options, mean_, "SAVE_MEAN", "MEAN_DTYPE");
  AddTensorSwitch(options, rstd_, "SAVE_RSTD", "RSTD_DTYPE");
  options.AddOptionIf(share, "-DUSE_SHARE_MEMORY");
  auto unit = MakeSubKernel(session, "GroupNorm::groupnorm", NormSources("groupnorm.cl"), options,
                            "groupnorm");
  const std::vector<long> view{fold.batch, fold.channels, fold.spatial};
  if (share) unit->SetArg(LocalMemory{static_cast<size_t>(cached) * 4});
  unit->SetArg(ContiguousView(input_, view));
  if (weight_.defined()) unit->SetArg(ContiguousView(weight_, {fold.channels}));
  if (bias_.defined()) unit->SetArg(ContiguousView(bias_, {fold.channels}));
  if (mean_.defined()) unit->SetArg(ContiguousView(mean_, {fold.batch, groups}));
  if (rstd_.defined()) unit->SetArg(ContiguousView(rstd_, {fold.batch, groups}));
  unit->SetArg(ContiguousView(output_, view))
      .SetArg(static_cast<int>(groups))
      .SetArg(static_cast<int>(per_group))
      .SetArg(static_cast<int>(split.vectors))
      .SetArg(1.0f / static_cast<float>(per_group * fold.spatial))
      .SetArg(option_.eps)
      .SetGlobal({static_cast<size_t>(block), static_cast<size_t>(groups),
                  static_cast<size_t>(fold.batch)})
      .SetLocal({static_cast<size_t>(block), 1, 1});
}

GroupNormWithTrainingKernel::GroupNormWithTrainingKernel(
    const GroupNormOption& option, const TensorOption& input_opt, const Buffer& input,
    const TensorOption& weight_opt, const Buffer& weight, const TensorOption& bias_opt,
    const Buffer& bias, const TensorOption& out_opt, Buffer& out, const TensorOption& mean_opt,
    Buffer& mean, const TensorOption& rstd_opt, Buffer& rstd)
    : GroupNormKernel("GroupNormWithTraining", option, Tensor(input_opt, input, 0),
                      OptionalTensor(weight_opt, weight), OptionalTensor(bias_opt, bias),
                      Tensor(out_opt, out, 0), Tensor(mean_opt, mean, 0),
                      Tensor(rstd_opt, rstd, 0)) {}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<GroupNormKernel, const GroupNormOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("GroupNorm");
  ClModule::singleton()
      .AddKernel<GroupNormWithTrainingKernel, const GroupNormOption&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&, const TensorOption&,
                 const Buffer&, const TensorOption&, Buffer&, const TensorOption&, Buffer&,
                 const TensorOption&, Buffer&>("GroupNormWithTraining");
};

}  // namespace cl
}  // namespace nerva
