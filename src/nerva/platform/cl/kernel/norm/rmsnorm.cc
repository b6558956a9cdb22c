#include "nerva/platform/cl/kernel/norm/rmsnorm.h"

#include <stdexcept>

#include "nerva/platform/cl/kernel/norm/layernorm.h"
#include "nerva/platform/cl/kernel/norm/norm_util.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

RMSNormKernel::RMSNormKernel(const RMSNormOption& option, const TensorOption& input_opt,
                             const Buffer& input, const TensorOption& weight_opt,
                             const Buffer& weight, const TensorOption& out_opt, Buffer& out)
    : KernelImpl("RMSNorm"),
      option_(option),
      input_(input_opt, input, 0),
      weight_(OptionalTensor(weight_opt, weight)),
      output_(out_opt, out, 0) {}

bool RMSNormKernel::Verify() const {
  CheckPresent(name(), "input", input_);
  CheckNormType(name(), "input", input_);
  long rows = 0, length = 0;
  LayerNormSplit(name(), input_.shape().sizes(), option_.normalized_shape, &rows, &length);
  CheckOutput(name(), "output", output_, input_.shape().sizes(), input_.dtype());
  if (weight_.defined()) {
    CheckNormType(name(), "weight", weight_);
    if (ElementCount(weight_) != length) {
      throw std::runtime_error(StrCat(name(), ": weight has shape ", weight_.shape(),
                                      " but the normalized size is ", length));
    }
  }
  return true;
}

void RMSNormKernel::Compile(std::shared_ptr<SessionImpl> session) {
  long rows = 0, length = 0;
  LayerNormSplit(name(), input_.shape().sizes(), option_.normalized_shape, &rows, &length);
  if (rows == 0 || length == 0) return;
  input_ = MakeContiguous(*this, session, input_);
  if (weight_.defined()) weight_ = MakeContiguous(*this, session, weight_);
  // Host-CPU devices with many rows: items of four rows (RMS_ROWS in
  // rmsnorm.cl), no barriers; elsewhere a group per row.
  constexpr long kRowsPerItem = 4;
  const int block = NormBlockSize(*session, rows);
  const bool items = block == 1;
  const RunSplit split = SplitRun(length, items ? 16 : 4);
  const bool share = RowCacheFits(*session, split.vectors * split.vec, split.vec, block);
  BuildOption options = NormBuildOption(input_.dtype(), split, block);
  AddTensorSwitch(options, weight_, "USE_SCALE", "DTYPE_SCALE");
  options.AddOptionIf(share, "-DUSE_SHARE_MEMORY").AddOptionIf(items, "-DROW_ITEMS");
  const std::string function = items ? "rmsnorm_rows" : "rmsnorm";
  auto unit =
      MakeSubKernel(session, "RMSNorm::" + function, NormSources("rmsnorm.cl"), options, function);
  if (share) unit->SetArg(LocalMemory{static_cast<size_t>(split.vectors * split.vec) * 4});
  unit->SetArg(RowView(input_, rows, length));
  if (weight_.defined()) unit->SetArg(RowView(weight_, 1, length));
  unit->SetArg(RowView(output_, rows, length))
      .SetArg(static_cast<int>(split.vectors))
      .SetArg(1.0f / static_cast<float>(length))
      .SetArg(option_.eps);
  if (items) {
    unit->SetArg(static_cast<int>(rows))
        .SetGlobal({1, static_cast<size_t>((rows + kRowsPerItem - 1) / kRowsPerItem)})
        .SetLocal({1, 1});
    return;
  }
  unit->SetGlobal({static_cast<size_t>(block), static_cast<size_t>(rows)})
      .SetLocal({static_cast<size_t>(block), 1});
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<RMSNormKernel, const RMSNormOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, Buffer&>("RMSNorm");
};

}  // namespace cl
}  // namespace nerva
