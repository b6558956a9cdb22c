#include "nerva/platform/cl/kernel/norm/instancenorm.h"

#include <stdexcept>

#include "nerva/platform/cl/kernel/norm/norm_util.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

InstanceNormKernel::InstanceNormKernel(const InstanceNormOption& option,
                                       const TensorOption& input_opt, const Buffer& input,
                                       const TensorOption& weight_opt, const Buffer& weight,
                                       const TensorOption& bias_opt, const Buffer& bias,
                                       const TensorOption& out_opt, Buffer& out)
    : KernelImpl("InstanceNorm"),
      option_(option),
      input_(input_opt, input, 0),
      weight_(OptionalTensor(weight_opt, weight)),
      bias_(OptionalTensor(bias_opt, bias)),
      output_(out_opt, out, 0) {}

bool InstanceNormKernel::Verify() const {
  CheckPresent(name(), "input", input_);
  CheckNormType(name(), "input", input_);
  const ChannelFold fold = FoldChannels(name(), input_);
  if (fold.spatial <= 1) throw std::runtime_error("Expected more than 1 spatial element!");
  for (const Tensor* t : {&weight_, &bias_}) {
    if (!t->defined()) continue;
    if (ElementCount(*t) != fold.channels) {
      throw std::runtime_error("Size of scale and bias size must equal to channel size!");
    }
    CheckNormType(name(), t == &weight_ ? "weight" : "bias", *t);
  }
  CheckOutput(name(), "output", output_, input_.shape().sizes(), input_.dtype());
  return true;
}

void InstanceNormKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const ChannelFold fold = FoldChannels(name(), input_);
  if (ElementCount(input_) == 0) return;
  input_ = MakeContiguous(*this, session, input_);
  if (weight_.defined()) weight_ = MakeContiguous(*this, session, weight_);
  if (bias_.defined()) bias_ = MakeContiguous(*this, session, bias_);
  const RunSplit split = SplitRun(fold.spatial);
  const int block = NormBlockSize(*session, fold.channels * fold.batch);
  const bool share = RowCacheFits(*session, split.vectors * split.vec, split.vec, block);
  BuildOption options = NormBuildOption(input_.dtype(), split, block);
  AddTensorSwitch(options, weight_, "USE_SCALE", "DTYPE_SCALE");
  AddTensorSwitch(options, bias_, "USE_BIAS", "DTYPE_BIAS");
  options.AddOptionIf(share, "-DUSE_SHARE_MEMORY");
  auto unit = MakeSubKernel(session, "InstanceNorm::instancenorm", NormSources("instancenorm.cl"),
                            options, "instance_norm");
  const std::vector<long> view{fold.batch, fold.channels, fold.spatial};
  if (share) unit->SetArg(LocalMemory{static_cast<size_t>(split.vectors * split.vec) * 4});
  unit->SetArg(ContiguousView(input_, view));
  if (weight_.defined()) unit->SetArg(ContiguousView(weight_, {fold.channels}));
  if (bias_.defined()) unit->SetArg(ContiguousView(bias_, {fold.channels}));
  unit->SetArg(ContiguousView(output_, view))
      .SetArg(static_cast<int>(split.vectors))
      .SetArg(1.0f / static_cast<float>(fold.spatial))
      .SetArg(option_.eps)
      .SetGlobal({static_cast<size_t>(block), static_cast<size_t>(fold.channels),
                  static_cast<size_t>(fold.batch)})
      .SetLocal({static_cast<size_t>(block), 1, 1});
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<InstanceNormKernel, const InstanceNormOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("InstanceNorm");
};

}  // namespace cl
}  // namespace nerva
