#include "nerva/platform/cl/kernel/norm/layernorm_backward.h"

#include <algorithm>
#include <stdexcept>

#include "nerva/platform/cl/kernel/norm/layernorm.h"
#include "nerva/platform/cl/kernel/norm/norm_util.h"
#include "nerva/platform/cl/kernel/reduce/reduce.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

LayerNormBackwardKernel::LayerNormBackwardKernel(
    const LayerNormBackwardOption& option, const TensorOption& grad_opt, const Buffer& grad,
    const TensorOption& input_opt, const Buffer& input, const TensorOption& mean_opt,
    const Buffer& mean, const TensorOption& rstd_opt, const Buffer& rstd,
    const TensorOption& weight_opt, const Buffer& weight, const TensorOption& bias_opt,
    const Buffer& bias, const TensorOption& grad_input_opt, Buffer& grad_input,
    const TensorOption& grad_weight_opt, Buffer& grad_weight, const TensorOption& grad_bias_opt,
    Buffer& grad_bias)
    : KernelImpl("LayerNormBackward"),
      option_(option),
      grad_(grad_opt, grad, 0),
      input_(input_opt, input, 0),
      mean_(mean_opt, mean, 0),
      rstd_(rstd_opt, rstd, 0),
      weight_(OptionalTensor(weight_opt, weight)),
      bias_(OptionalTensor(bias_opt, bias)),
      grad_input_(OptionalTensor(grad_input_opt, grad_input)),
      grad_weight_(OptionalTensor(grad_weight_opt, grad_weight)),
      grad_bias_(OptionalTensor(grad_bias_opt, grad_bias)) {}

bool LayerNormBackwardKernel::WritesGradX() const {
  return option_.output_mask[0] && grad_input_.defined();
}
bool LayerNormBackwardKernel::WritesGradWeight() const {
  return option_.output_mask[1] && grad_weight_.defined();
}
bool LayerNormBackwardKernel::WritesGradBias() const {
  return option_.output_mask[2] && grad_bias_.defined();
}

bool LayerNormBackwardKernel::Verify() const {
  CheckPresent(name(), "input", input_);
  CheckNormType(name(), "input", input_);
  CheckLike(name(), "grad_output", grad_, "input", input_);
  long rows = 0, length = 0;
  LayerNormSplit(name(), input_.shape().sizes(), option_.normalized_shape, &rows, &length);
  for (const Tensor* t : {&mean_, &rstd_}) {
    CheckPresent(name(), t == &mean_ ? "mean" : "rstd", *t);
    CheckNormType(name(), t == &mean_ ? "mean" : "rstd", *t);
    if (ElementCount(*t) != rows) {
      throw std::runtime_error(StrCat(name(), ": ", t == &mean_ ? "mean" : "rstd", " has shape ",
                                      t->shape(), " but needs ", rows, " elements"));
    }
  }
  for (const Tensor* t : {&weight_, &bias_}) {
    if (!t->defined()) continue;
    if (ElementCount(*t) != length) {
      throw std::runtime_error("Size of scale and bias size must equal to normalized size!");
    }
    CheckNormType(name(), t == &weight_ ? "weight" : "bias", *t);
  }
  if (WritesGradX()) {
    CheckOutput(name(), "grad_input", grad_input_, input_.shape().sizes(), input_.dtype());
  }
  if (WritesGradWeight()) CheckStatOutput(name(), "grad_weight", grad_weight_, length);
  if (WritesGradBias()) CheckStatOutput(name(), "grad_bias", grad_bias_, length);
  return true;
}

void LayerNormBackwardKernel::Compile(std::shared_ptr<SessionImpl> session) {
  LayerNormSplit(name(), input_.shape().sizes(), option_.normalized_shape, &rows_, &length_);
  if (rows_ == 0 || length_ == 0) return;
  input_ = MakeContiguous(*this, session, input_);
  grad_ = MakeContiguous(*this, session, grad_);
  mean_ = MakeContiguous(*this, session, mean_);
  rstd_ = MakeContiguous(*this, session, rstd_);
  if (weight_.defined()) weight_ = MakeContiguous(*this, session, weight_);
  const bool columns = WritesGradWeight() || WritesGradBias();
  if (session->host_cpu() && WritesGradX()) {
    // One pass over chunks of rows for the input gradient and the others asked for.
    CompileRowChunks(session, true);
    return;
  }
  if (WritesGradX()) CompileGradX(session);
  if (columns) CompileGradWeightBias(session);
}

void LayerNormBackwardKernel::CompileGradX(std::shared_ptr<SessionImpl> session) {
  const RunSplit split = SplitRun(length_);
  const long floats = split.vectors * split.vec;
  // The input row, then g * w, each kept when everything kept so far fits.
  const int block = NormBlockSize(*session, rows_);
  const bool cache_x = RowCacheFits(*session, floats, split.vec, block);
  const bool cache_g = cache_x && RowCacheFits(*session, 2 * floats, split.vec, block);
  BuildOption options = NormBuildOption(input_.dtype(), split, block);
  options.AddDefinition("MEAN_DTYPE", GetDataTypeCode(mean_.dtype()))
      .AddDefinition("RSTD_DTYPE", GetDataTypeCode(rstd_.dtype()));
  AddTensorSwitch(options, weight_, "USE_WEIGHT", "DTYPE_WEIGHT");
  options.AddOptionIf(cache_x, "-DUSE_INPUT_SHARE_MEMORY")
      .AddOptionIf(cache_g, "-DUSE_GRAD_SHARE_MEMORY");
  auto unit =
      MakeSubKernel(session, "LayerNormBackward::grad_x", NormSources("layernorm_backward.cl"),
                    options, "layernorm_backward_grad_x");
  const LocalMemory cache{static_cast<size_t>(floats) * 4};
  if (cache_x) unit->SetArg(cache);
  if (cache_g) unit->SetArg(cache);
  unit->SetArg(RowView(grad_, rows_, length_))
      .SetArg(RowView(input_, rows_, length_))
      .SetArg(ContiguousView(mean_, {rows_}))
      .SetArg(ContiguousView(rstd_, {rows_}));
  if (weight_.defined()) unit->SetArg(RowView(weight_, 1, length_));
  unit->SetArg(RowView(grad_input_, rows_, length_))
      .SetArg(static_cast<int>(split.vectors))
      .SetArg(1.0f / static_cast<float>(length_))
      .SetGlobal({static_cast<size_t>(block), static_cast<size_t>(rows_)})
      .SetLocal({static_cast<size_t>(block), 1});
}

void LayerNormBackwardKernel::CompileGradWeightBias(std::shared_ptr<SessionImpl> session) {
  if (session->host_cpu()) {
    CompileRowChunks(session, false);
    return;
  }
  const RunSplit split = SplitRun(length_);
  const long items = split.vectors + (split.leftover ? 1 : 0);
  const ColumnSplit rows = SplitColumns(*session, items, rows_);
  if (rows.splits > 1) {
    CompileSplitGradWeightBias(session, split, rows);
    return;
  }
  // Groups of 64 items walk one column vector each.
  BuildOption options = NormBuildOption(input_.dtype(), split, kReduceBlockSize);
  options.AddDefinition("MEAN_DTYPE", GetDataTypeCode(mean_.dtype()))
      .AddDefinition("RSTD_DTYPE", GetDataTypeCode(rstd_.dtype()))
      .AddOption("-DGRAD_WEIGHT_BIAS");
  const Tensor none;
  AddTensorSwitch(options, WritesGradWeight() ? grad_weight_ : none, "SAVE_WEIGHT", "DTYPE_SCALE");
  AddTensorSwitch(options, WritesGradBias() ? grad_bias_ : none, "SAVE_BIAS", "DTYPE_BIAS");
  auto unit =
      MakeSubKernel(session, "LayerNormBackward::grad_wb", NormSources("layernorm_backward.cl"),
                    options, "layernorm_backward_grad_wb");
  unit->SetArg(RowView(grad_, rows_, length_))
      .SetArg(RowView(input_, rows_, length_))
      .SetArg(ContiguousView(mean_, {rows_}))
      .SetArg(ContiguousView(rstd_, {rows_}));
  if (WritesGradWeight()) unit->SetArg(ContiguousView(grad_weight_, {length_}));
  if (WritesGradBias()) unit->SetArg(ContiguousView(grad_bias_, {length_}));
  // One item per vector; with a leftover the first vector covers the leading elements.
  unit->SetArg(static_cast<int>(rows_))
      .SetArg(static_cast<int>(items))
      .SetGlobal({static_cast<size_t>(items)})
      .SetLocal({static_cast<size_t>(kReduceBlockSize)});
}

void LayerNormBackwardKernel::CompileRowChunks(std::shared_ptr<SessionImpl> session,
                                               bool with_grad_input) {
  // Chunks of at least 16 rows, at most 32 chunks: enough items for the
  // cores, few partial rows to merge.
  constexpr long kMaxChunks = 32, kMinRows = 16;
  const long wanted = std::max(1L, std::min(kMaxChunks, rows_ / kMinRows));
  const long chunk_rows = (rows_ + wanted - 1) / wanted;
  const long chunks = (rows_ + chunk_rows - 1) / chunk_rows;
  const RunSplit split = SplitRun(length_, 16);
  BuildOption options = NormBuildOption(input_.dtype(), split, 1);
  options.AddDefinition("MEAN_DTYPE", GetDataTypeCode(mean_.dtype()))
      .AddDefinition("RSTD_DTYPE", GetDataTypeCode(rstd_.dtype()))
      .AddOption("-DGRAD_WEIGHT_BIAS")
      .AddOption("-DROW_CHUNKS")
      .AddOptionIf(WritesGradWeight(), "-DSAVE_WEIGHT")
      .AddOptionIf(WritesGradBias(), "-DSAVE_BIAS")
      .AddOptionIf(with_grad_input, "-DWITH_GRAD_INPUT");
  if (with_grad_input) AddTensorSwitch(options, weight_, "USE_WEIGHT", "DTYPE_WEIGHT");
  auto unit = MakeSubKernel(session, "LayerNormBackward::grad_wb_rows",
                            NormSources("layernorm_backward.cl"), options,
                            "layernorm_backward_grad_wb_rows");
  unit->SetArg(RowView(grad_, rows_, length_))
      .SetArg(RowView(input_, rows_, length_))
      .SetArg(ContiguousView(mean_, {rows_}))
      .SetArg(ContiguousView(rstd_, {rows_}));
  if (with_grad_input && weight_.defined()) unit->SetArg(RowView(weight_, 1, length_));
  if (with_grad_input) unit->SetArg(RowView(grad_input_, rows_, length_));
  const Partials partials = BindPartials(session, *unit, chunks);
  unit->SetArg(static_cast<int>(rows_))
      .SetArg(static_cast<int>(chunk_rows))
      .SetArg(static_cast<int>(length_))
      .SetArg(static_cast<int>(split.vectors));
  if (with_grad_input) unit->SetArg(1.0f / static_cast<float>(length_));
  unit->SetGlobal({static_cast<size_t>(chunks)}).SetLocal({1});
  MergePartials(session, partials);
}

void LayerNormBackwardKernel::CompileSplitGradWeightBias(std::shared_ptr<SessionImpl> session,
                                                         const RunSplit& split,
                                                         const ColumnSplit& rows) {
  BuildOption options = NormBuildOption(input_.dtype(), split, kReduceBlockSize);
  options.AddDefinition("MEAN_DTYPE", GetDataTypeCode(mean_.dtype()))
      .AddDefinition("RSTD_DTYPE", GetDataTypeCode(rstd_.dtype()))
      .AddOption("-DGRAD_WEIGHT_BIAS")
      .AddOption("-DSPLIT_ROWS")
      .AddOptionIf(WritesGradWeight(), "-DSAVE_WEIGHT")
      .AddOptionIf(WritesGradBias(), "-DSAVE_BIAS");
  auto unit = MakeSubKernel(session, "LayerNormBackward::grad_wb_split",
                            NormSources("layernorm_backward.cl"), options,
                            "layernorm_backward_grad_wb_split");
  unit->SetArg(RowView(grad_, rows_, length_))
      .SetArg(RowView(input_, rows_, length_))
      .SetArg(ContiguousView(mean_, {rows_}))
      .SetArg(ContiguousView(rstd_, {rows_}));
  const Partials partials = BindPartials(session, *unit, rows.splits);
  const long items = split.vectors + (split.leftover ? 1 : 0);
  unit->SetArg(static_cast<int>(rows_))
      .SetArg(static_cast<int>(rows.rows))
      .SetArg(static_cast<int>(length_))
      .SetArg(static_cast<int>(items))
      .SetGlobal({static_cast<size_t>(items), static_cast<size_t>(rows.splits)})
      .SetLocal({static_cast<size_t>(kReduceBlockSize), 1});
  MergePartials(session, partials);
}

LayerNormBackwardKernel::Partials LayerNormBackwardKernel::BindPartials(
    const std::shared_ptr<SessionImpl>& session, KernelUnit& unit, long parts) const {
  const long bytes = parts * length_ * static_cast<long>(sizeof(float));
  Partials partials;
  partials.parts = parts;
  if (WritesGradWeight()) unit.SetArg(partials.weight = MakeScratchBuffer(session, bytes));
  if (WritesGradBias()) unit.SetArg(partials.bias = MakeScratchBuffer(session, bytes));
  return partials;
}

void LayerNormBackwardKernel::MergePartials(const std::shared_ptr<SessionImpl>& session,
                                            const Partials& partials) {
  if (WritesGradWeight()) {
    AppendSplitColumnSum(*this, session, partials.weight, partials.parts, length_, grad_weight_);
  }
  if (WritesGradBias()) {
    AppendSplitColumnSum(*this, session, partials.bias, partials.parts, length_, grad_bias_);
  }
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<LayerNormBackwardKernel, const LayerNormBackwardOption&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&, const TensorOption&, Buffer&,
                 const TensorOption&, Buffer&, const TensorOption&, Buffer&>("LayerNormBackward");
};

}  // namespace cl
}  // namespace nerva
