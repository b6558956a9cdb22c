#include "nerva/platform/cl/kernel/norm/layernorm.h"

#include <stdexcept>

#include "nerva/platform/cl/kernel/norm/norm_util.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

void LayerNormSplit(const std::string& op, const std::vector<long>& sizes,
                    const std::vector<long>& normalized_shape, long* rows, long* length) {
  const size_t rank = sizes.size(), norm_rank = normalized_shape.size();
  bool ok = norm_rank > 0 && norm_rank <= rank;
  for (size_t i = 0; ok && i < norm_rank; ++i) {
    ok = sizes[rank - norm_rank + i] == normalized_shape[i];
  }
  if (!ok) {
    throw std::runtime_error(StrCat(op, ": normalized_shape ", Shape(normalized_shape),
                                    " does not match the trailing sizes of input shape ",
                                    Shape(sizes)));
  }
  *rows = Product(sizes, 0, rank - norm_rank);
  *length = Product(sizes, rank - norm_rank, rank);
}

LayerNormKernel::LayerNormKernel(const LayerNormOption& option, const TensorOption& input_opt,
                                 const Buffer& input, const TensorOption& weight_opt,
                                 const Buffer& weight, const TensorOption& bias_opt,
                                 const Buffer& bias, const TensorOption& out_opt, Buffer& out)
    : LayerNormKernel("LayerNorm", option, Tensor(input_opt, input, 0),
                      OptionalTensor(weight_opt, weight), OptionalTensor(bias_opt, bias),
                      Tensor(out_opt, out, 0), Tensor(), Tensor()) {}

LayerNormKernel::LayerNormKernel(std::string name, const LayerNormOption& option, Tensor input,
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

long LayerNormKernel::Rows() const {
  long rows = 0, length = 0;
  LayerNormSplit(name(), input_.shape().sizes(), option_.normalized_shape, &rows, &length);
  return rows;
}

long LayerNormKernel::RowLength() const {
  long rows = 0, length = 0;
  LayerNormSplit(name(), input_.shape().sizes(), option_.normalized_shape, &rows, &length);
  return length;
}

bool LayerNormKernel::Verify() const {
  CheckPresent(name(), "input", input_);
  CheckNormType(name(), "input", input_);
  const long length = RowLength();
  CheckOutput(name(), "output", output_, input_.shape().sizes(), input_.dtype());
  for (const Tensor* t : {&weight_, &bias_}) {
    if (!t->defined()) continue;
    if (ElementCount(*t) != length) {
      throw std::runtime_error("Size of scale and bias size must equal to normalized size!");
    }
    CheckNormType(name(), t == &weight_ ? "weight" : "bias", *t);
  }
  if (weight_.defined() && bias_.defined() && weight_.dtype() != bias_.dtype() &&
      SplitRun(length).leftover != 0) {
    throw std::invalid_argument(StrCat(name(), ": weight type ", weight_.dtype(), " and bias type ",
                                       bias_.dtype(), " must match when the row length ", length,
                                       " is not a multiple of 4"));
  }
  if (name() == "LayerNormWithTraining") {
    CheckStatOutput(name(), "mean", mean_, Rows());
    CheckStatOutput(name(), "rstd", rstd_, Rows());
  }
  return true;
}

void LayerNormKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const long rows = Rows(), length = RowLength();
  if (rows == 0 || length == 0) return;
  input_ = MakeContiguous(*this, session, input_);
  if (weight_.defined()) weight_ = MakeContiguous(*this, session, weight_);
  if (bias_.defined()) bias_ = MakeContiguous(*this, session, bias_);
  const int block = NormBlockSize(*session, rows);
  if (block == 1) {
    CompileRows(session, rows, length);
    return;
  }
  const RunSplit split = SplitRun(length);
  const bool share = RowCacheFits(*session, split.vectors * split.vec, split.vec, block);
  BuildOption options = NormBuildOption(input_.dtype(), split, block);
  AddSwitches(options);
  options.AddOptionIf(share, "-DUSE_SHARE_MEMORY");
  auto unit = MakeSubKernel(session, "LayerNorm::layernorm", NormSources("layernorm.cl"), options,
                            "layernorm");
  if (share) unit->SetArg(LocalMemory{static_cast<size_t>(split.vectors * split.vec) * 4});
  BindRows(*unit, rows, length, split.vectors);
  unit->SetGlobal({static_cast<size_t>(block), static_cast<size_t>(rows)})
      .SetLocal({static_cast<size_t>(block), 1});
}

void LayerNormKernel::AddSwitches(BuildOption& options) const {
  options.AddDefinitionAutoType("EPS", option_.eps);
  AddTensorSwitch(options, weight_, "USE_SCALE", "DTYPE_SCALE");
  AddTensorSwitch(options, bias_, "USE_BIAS", "DTYPE_BIAS");
  AddTensorSwitch(options, mean_, "SAVE_MEAN", "MEAN_DTYPE");
  AddTensorSwitch(options, rstd_, "SAVE_RSTD", "RSTD_DTYPE");
}

void LayerNormKernel::BindRows(KernelUnit& unit, long rows, long length, long vectors) const {
  unit.SetArg(RowView(input_, rows, length));
  if (weight_.defined()) unit.SetArg(RowView(weight_, 1, length));
  if (bias_.defined()) unit.SetArg(RowView(bias_, 1, length));
  if (mean_.defined()) unit.SetArg(ContiguousView(mean_, {rows}));
  if (rstd_.defined()) unit.SetArg(ContiguousView(rstd_, {rows}));
  unit.SetArg(RowView(output_, rows, length))
      .SetArg(static_cast<int>(vectors))
      .SetArg(1.0f / static_cast<float>(length));
}

void LayerNormKernel::CompileRows(const std::shared_ptr<SessionImpl>& session, long rows,
                                  long length) {
  constexpr long kRowsPerItem = 4;  // LN_ROWS in layernorm.cl
  const RunSplit split = SplitRun(length, 16);
  BuildOption options = NormBuildOption(input_.dtype(), split, 1);
  AddSwitches(options);
  options.AddOption("-DROW_ITEMS");
  auto unit = MakeSubKernel(session, "LayerNorm::layernorm_rows", NormSources("layernorm.cl"),
                            options, "layernorm_rows");
  BindRows(*unit, rows, length, split.vectors);
  unit->SetArg(static_cast<int>(rows))
      .SetGlobal({1, static_cast<size_t>((rows + kRowsPerItem - 1) / kRowsPerItem)})
      .SetLocal({1, 1});
}

LayerNormWithTrainingKernel::LayerNormWithTrainingKernel(
    const LayerNormOption& option, const TensorOption& input_opt, const Buffer& input,
    const TensorOption& weight_opt, const Buffer& weight, const TensorOption& bias_opt,
    const Buffer& bias, const TensorOption& out_opt, Buffer& out, const TensorOption& mean_opt,
    Buffer& mean, const TensorOption& rstd_opt, Buffer& rstd)
    : LayerNormKernel("LayerNormWithTraining", option, Tensor(input_opt, input, 0),
                      OptionalTensor(weight_opt, weight), OptionalTensor(bias_opt, bias),
                      Tensor(out_opt, out, 0), Tensor(mean_opt, mean, 0),
                      Tensor(rstd_opt, rstd, 0)) {}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<LayerNormKernel, const LayerNormOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("LayerNorm");
  ClModule::singleton()
      .AddKernel<LayerNormWithTrainingKernel, const LayerNormOption&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&, const TensorOption&,
                 const Buffer&, const TensorOption&, Buffer&, const TensorOption&, Buffer&,
                 const TensorOption&, Buffer&>("LayerNormWithTraining");
};

}  // namespace cl
}  // namespace nerva
