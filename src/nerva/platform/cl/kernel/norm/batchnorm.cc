#include "nerva/platform/cl/kernel/norm/batchnorm.h"

#include <stdexcept>

#include "nerva/platform/cl/kernel/norm/norm_util.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

void CheckBatchNormParam(const std::string& op, const std::string& what, const Tensor& tensor,
                         long channels) {
  if (tensor.dtype() != kFloat) {
    throw std::runtime_error("BatchNorm " + what + " tensor must be float type.");
  }
  CheckChannelTensor(op, what, tensor, channels);
}

BatchNormKernel::BatchNormKernel(const BatchNormOption& option, const TensorOption& input_opt,
                                 const Buffer& input, const TensorOption& mean_opt,
                                 const Buffer& mean, const TensorOption& var_opt, const Buffer& var,
                                 const TensorOption& weight_opt, const Buffer& weight,
                                 const TensorOption& bias_opt, const Buffer& bias,
                                 const TensorOption& out_opt, Buffer& out)
    : KernelImpl("BatchNorm"),
      option_(option),
      input_(input_opt, input, 0),
      mean_(mean_opt, mean, 0),
      var_(var_opt, var, 0),
      weight_(OptionalTensor(weight_opt, weight)),
      bias_(OptionalTensor(bias_opt, bias)),
      output_(out_opt, out, 0) {}

bool BatchNormKernel::Verify() const {
  CheckPresent(name(), "input", input_);
  CheckNormType(name(), "input", input_);
  const ChannelFold fold = FoldChannels(name(), input_);
  CheckPresent(name(), "mean", mean_);
  CheckBatchNormParam(name(), "mean", mean_, fold.channels);
  CheckPresent(name(), "var", var_);
  CheckBatchNormParam(name(), "var", var_, fold.channels);
  if (weight_.defined()) CheckBatchNormParam(name(), "weight", weight_, fold.channels);
  if (bias_.defined()) CheckBatchNormParam(name(), "bias", bias_, fold.channels);
  CheckOutput(name(), "output", output_, input_.shape().sizes(), input_.dtype());
  return true;
}

void BatchNormKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const ChannelFold fold = FoldChannels(name(), input_);
  if (ElementCount(input_) == 0) return;
  input_ = MakeContiguous(*this, session, input_);
  mean_ = MakeContiguous(*this, session, mean_);
  var_ = MakeContiguous(*this, session, var_);
  if (weight_.defined()) weight_ = MakeContiguous(*this, session, weight_);
  if (bias_.defined()) bias_ = MakeContiguous(*this, session, bias_);
  const RunSplit split = SplitRun(fold.spatial);
  BuildOption options;
  options.AddDefinition("DTYPE", GetDataTypeCode(input_.dtype()))
      .AddDefinitionAutoType("VEC_SIZE", split.vec)
      .AddDefinitionAutoType("VEC_SIZE_LEFTOVER", split.leftover)
      .AddOptionIf(weight_.defined(), "-DUSE_SCALE")
      .AddOptionIf(bias_.defined(), "-DUSE_BIAS");
  auto unit = MakeSubKernel(session, "BatchNorm::batchnorm", {"common.h", "batchnorm.cl"}, options,
                            "BatchNorm");
  const std::vector<long> view{fold.batch, fold.channels, fold.spatial};
  unit->SetArg(ContiguousView(input_, view))
      .SetArg(ContiguousView(mean_, {fold.channels}))
      .SetArg(ContiguousView(var_, {fold.channels}));
  if (weight_.defined()) unit->SetArg(ContiguousView(weight_, {fold.channels}));
  if (bias_.defined()) unit->SetArg(ContiguousView(bias_, {fold.channels}));
  unit->SetArg(ContiguousView(output_, view))
      .SetArg(option_.eps)
      .SetGlobal({static_cast<size_t>(fold.spatial), static_cast<size_t>(fold.channels),
                  static_cast<size_t>(fold.batch)},
                 {static_cast<size_t>(split.vec)});
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<BatchNormKernel, const BatchNormOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("BatchNorm");
};

}  // namespace cl
}  // namespace nerva
