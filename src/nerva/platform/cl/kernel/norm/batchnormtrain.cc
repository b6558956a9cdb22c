#include "nerva/platform/cl/kernel/norm/batchnormtrain.h"

#include <stdexcept>

#include "nerva/platform/cl/kernel/norm/batchnorm.h"
#include "nerva/platform/cl/kernel/norm/norm_util.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

BatchNormTrainKernel::BatchNormTrainKernel(
    const BatchNormTrainOption& option, const TensorOption& input_opt, const Buffer& input,
    const TensorOption& running_mean_opt, const Buffer& running_mean,
    const TensorOption& running_var_opt, const Buffer& running_var, const TensorOption& weight_opt,
    const Buffer& weight, const TensorOption& bias_opt, const Buffer& bias,
    const TensorOption& out_opt, Buffer& out, const TensorOption& save_mean_opt, Buffer& save_mean,
    const TensorOption& save_rstd_opt, Buffer& save_rstd, const TensorOption& new_mean_opt,
    Buffer& new_mean, const TensorOption& new_var_opt, Buffer& new_var)
    : KernelImpl("BatchNormTrain"),
      option_(option),
      input_(input_opt, input, 0),
      running_mean_(OptionalTensor(running_mean_opt, running_mean)),
      running_var_(OptionalTensor(running_var_opt, running_var)),
      weight_(OptionalTensor(weight_opt, weight)),
      bias_(OptionalTensor(bias_opt, bias)),
      output_(out_opt, out, 0),
      save_mean_(OptionalTensor(save_mean_opt, save_mean)),
      save_rstd_(OptionalTensor(save_rstd_opt, save_rstd)),
      new_mean_(OptionalTensor(new_mean_opt, new_mean)),
      new_var_(OptionalTensor(new_var_opt, new_var)) {}

bool BatchNormTrainKernel::Verify() const {
  CheckPresent(name(), "input", input_);
  CheckNormType(name(), "input", input_);
  const ChannelFold fold = FoldChannels(name(), input_);
  if (fold.batch * fold.spatial <= 1) {
    throw std::runtime_error(StrCat(name(), ": expected more than 1 value per channel when ",
                                    "training, got input shape ", input_.shape()));
  }
  if (running_mean_.defined() != running_var_.defined()) {
    throw std::invalid_argument(
        StrCat(name(), ": running_mean and running_var must be given together"));
  }
  if (running_mean_.defined()) {
    CheckBatchNormParam(name(), "mean", running_mean_, fold.channels);
    CheckBatchNormParam(name(), "var", running_var_, fold.channels);
    CheckPresent(name(), "new_running_mean", new_mean_);
    CheckPresent(name(), "new_running_var", new_var_);
    CheckBatchNormParam(name(), "new_running_mean", new_mean_, fold.channels);
    CheckBatchNormParam(name(), "new_running_var", new_var_, fold.channels);
  }
  if (weight_.defined()) CheckBatchNormParam(name(), "weight", weight_, fold.channels);
  if (bias_.defined()) CheckBatchNormParam(name(), "bias", bias_, fold.channels);
  if (save_mean_.defined()) CheckBatchNormParam(name(), "save_mean", save_mean_, fold.channels);
  if (save_rstd_.defined()) CheckBatchNormParam(name(), "save_rstd", save_rstd_, fold.channels);
  CheckOutput(name(), "output", output_, input_.shape().sizes(), input_.dtype());
  return true;
}

void BatchNormTrainKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const ChannelFold fold = FoldChannels(name(), input_);
  if (ElementCount(input_) == 0) return;
  input_ = MakeContiguous(*this, session, input_);
  for (Tensor* t : {&running_mean_, &running_var_, &weight_, &bias_}) {
    if (t->defined()) *t = MakeContiguous(*this, session, *t);
  }
  if (!session->host_cpu()) {
    CompileSplit(session, fold, SplitRun(fold.spatial), kReduceBlockSize);
    return;
  }
  // Host-CPU devices: a large input goes through the same three passes with
  // one item per slice reading 16-lane vectors (many items for the cores, no
  // barriers); a small one takes the single launch below.
  constexpr long kSplitElements = 1L << 16;
  if (ElementCount(input_) >= kSplitElements) {
    CompileSplit(session, fold, SplitRun(fold.spatial, 16), 1);
    return;
  }
  const int block = NormBlockSize(*session, fold.channels);
  const RunSplit split = SplitRun(fold.spatial, NormVecWidth(*session, block));
  const long cached = fold.batch * split.vectors * split.vec;
  const bool share = RowCacheFits(*session, cached, split.vec, block);
  const bool update = running_mean_.defined();
  BuildOption options = NormBuildOption(input_.dtype(), split, block);
  options.AddOptionIf(update, "-DUPDATE_RUNNING")
      .AddOptionIf(weight_.defined(), "-DUSE_SCALE")
      .AddOptionIf(bias_.defined(), "-DUSE_BIAS")
      .AddOptionIf(save_mean_.defined(), "-DSAVE_MEAN")
      .AddOptionIf(save_rstd_.defined(), "-DSAVE_RSTD")
      .AddOptionIf(share, "-DUSE_SHARE_MEMORY");
  auto unit = MakeSubKernel(session, "BatchNormTrain::batchnormtrain",
                            NormSources("batchnormtrain.cl"), options, "BatchNormTrain");
  const std::vector<long> view{fold.batch, fold.channels, fold.spatial};
  const std::vector<long> per_channel{fold.channels};
  if (share) unit->SetArg(LocalMemory{static_cast<size_t>(cached) * 4});
  unit->SetArg(ContiguousView(input_, view));
  if (update) {
    unit->SetArg(ContiguousView(running_mean_, per_channel))
        .SetArg(ContiguousView(running_var_, per_channel));
  }
  if (weight_.defined()) unit->SetArg(ContiguousView(weight_, per_channel));
  if (bias_.defined()) unit->SetArg(ContiguousView(bias_, per_channel));
  unit->SetArg(ContiguousView(output_, view));
  if (save_mean_.defined()) unit->SetArg(ContiguousView(save_mean_, per_channel));
  if (save_rstd_.defined()) unit->SetArg(ContiguousView(save_rstd_, per_channel));
  if (update) {
    unit->SetArg(ContiguousView(new_mean_, per_channel))
        .SetArg(ContiguousView(new_var_, per_channel));
  }
  const long n = fold.batch * fold.spatial;
  unit->SetArg(static_cast<int>(split.vectors))
      .SetArg(static_cast<int>(fold.batch))
      .SetArg(1.0f / static_cast<float>(n))
      .SetArg(static_cast<float>(n) / static_cast<float>(n - 1))
      .SetArg(option_.momentum)
      .SetArg(option_.eps)
      .SetGlobal({static_cast<size_t>(block), static_cast<size_t>(fold.channels)})
      .SetLocal({static_cast<size_t>(block), 1});
}

void BatchNormTrainKernel::AddStatArgs(KernelUnit& unit, long channels, bool inputs) const {
  const std::vector<long> per_channel{channels};
  if (inputs) {
    if (running_mean_.defined()) {
      unit.SetArg(ContiguousView(running_mean_, per_channel))
          .SetArg(ContiguousView(running_var_, per_channel));
    }
    if (weight_.defined()) unit.SetArg(ContiguousView(weight_, per_channel));
    if (bias_.defined()) unit.SetArg(ContiguousView(bias_, per_channel));
    return;
  }
  if (save_mean_.defined()) unit.SetArg(ContiguousView(save_mean_, per_channel));
  if (save_rstd_.defined()) unit.SetArg(ContiguousView(save_rstd_, per_channel));
  if (running_mean_.defined()) {
    unit.SetArg(ContiguousView(new_mean_, per_channel))
        .SetArg(ContiguousView(new_var_, per_channel));
  }
}

void BatchNormTrainKernel::CompileSplit(std::shared_ptr<SessionImpl> session,
                                        const ChannelFold& fold, const RunSplit& split, int block) {
  const long slices = fold.batch * fold.channels;
  BuildOption options = NormBuildOption(input_.dtype(), split, block);
  options.AddOption("-DSPLIT_STATS")
      .AddOptionIf(running_mean_.defined(), "-DUPDATE_RUNNING")
      .AddOptionIf(weight_.defined(), "-DUSE_SCALE")
      .AddOptionIf(bias_.defined(), "-DUSE_BIAS")
      .AddOptionIf(save_mean_.defined(), "-DSAVE_MEAN")
      .AddOptionIf(save_rstd_.defined(), "-DSAVE_RSTD");
  const std::string program = "BatchNormTrain::split";
  const auto sources = NormSources("batchnormtrain.cl");
  const Buffer partial = MakeScratchBuffer(session, slices * 2 * sizeof(float));
  const Buffer coeff = MakeScratchBuffer(session, fold.channels * 2 * sizeof(float));
  const std::vector<long> view{slices, fold.spatial};
  MakeSubKernel(session, program, sources, options, "batchnormtrain_partial")
      ->SetArgs(ContiguousView(input_, view), partial, static_cast<int>(split.vectors))
      .SetGlobal({static_cast<size_t>(block), static_cast<size_t>(slices)})
      .SetLocal({static_cast<size_t>(block), 1});
  auto stats = MakeSubKernel(session, program, sources, options, "batchnormtrain_stats");
  stats->SetArg(partial);
  AddStatArgs(*stats, fold.channels, true);
  AddStatArgs(*stats, fold.channels, false);
  const long n = fold.batch * fold.spatial;
  stats->SetArg(coeff)
      .SetArg(static_cast<int>(fold.channels))
      .SetArg(static_cast<int>(fold.batch))
      .SetArg(1.0f / static_cast<float>(n))
      .SetArg(static_cast<float>(n) / static_cast<float>(n - 1))
      .SetArg(option_.momentum)
      .SetArg(option_.eps)
      .SetGlobal({static_cast<size_t>(fold.channels)})
      .SetLocal({static_cast<size_t>(kReduceBlockSize)});
  MakeSubKernel(session, program, sources, options, "batchnormtrain_apply")
      ->SetArgs(ContiguousView(input_, view), ContiguousView(output_, view), coeff,
                static_cast<int>(fold.channels), static_cast<int>(split.vectors))
      .SetGlobal({static_cast<size_t>(block), static_cast<size_t>(slices)})
      .SetLocal({static_cast<size_t>(block), 1});
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<BatchNormTrainKernel, const BatchNormTrainOption&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&, const TensorOption&,
                 const Buffer&, const TensorOption&, Buffer&, const TensorOption&, Buffer&,
                 const TensorOption&, Buffer&, const TensorOption&, Buffer&, const TensorOption&,
                 Buffer&>("BatchNormTrain");
};

}  // namespace cl
}  // namespace nerva
