#include "nerva/platform/cl/kernel/loss/class_loss.h"

#include <algorithm>
#include <stdexcept>

#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"
#include "nerva/platform/cl/kernel/reduce/reduce_util.h"
#include "nerva/platform/cl/module.h"
#include "nerva/type_traits.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {
bool Defined(const Tensor& t) {
  return !t.shape().sizes().empty();
}
Tensor None() {
  return MakeTensor(TensorOption{Shape(), kFloat}, Buffer());
}

// The (outer, classes, inner) view of input and the target's shape; throws on bad types,
// ranks and shapes.
ClassLayout CheckClassInputs(const std::string& op, const Tensor& input, const Tensor& target,
                             const Tensor& weight) {
  if (input.dtype() != kFloat && input.dtype() != kHalf) {
    throw std::invalid_argument(StrCat(op, ": input must be float or half, got ", input.dtype()));
  }
  if (target.dtype() != kInt64 && target.dtype() != kInt32) {
    throw std::invalid_argument(
        StrCat(op, ": target must hold class indices (int64 or int32), got ", target.dtype()));
  }
  const auto& sizes = input.shape().sizes();
  if (sizes.empty() || sizes.size() > 8) {
    throw std::runtime_error(
        StrCat(op, ": input must have 1 to 8 dimensions, got ", input.shape()));
  }
  ClassLayout layout;
  if (sizes.size() == 1) {
    layout.classes = sizes[0];
    layout.target_sizes = {1};
  } else {
    layout.outer = sizes[0];
    layout.classes = sizes[1];
    layout.inner = Product(sizes, 2, sizes.size());
    layout.target_sizes = {sizes[0]};
    layout.target_sizes.insert(layout.target_sizes.end(), sizes.begin() + 2, sizes.end());
  }
  if (target.shape().sizes() != layout.target_sizes) {
    throw std::runtime_error(StrCat(op, ": target must have shape ", Shape(layout.target_sizes),
                                    " for input ", input.shape(), ", got ", target.shape()));
  }
  if (Defined(weight)) {
    if (weight.dtype() != input.dtype()) {
      throw std::invalid_argument(
          StrCat(op, ": weight must have type ", input.dtype(), ", got ", weight.dtype()));
    }
    if (weight.shape().sizes() != std::vector<long>{layout.classes}) {
      throw std::runtime_error(StrCat(op, ": weight must have shape ", Shape({layout.classes}),
                                      ", got ", weight.shape()));
    }
  }
  return layout;
}

// Rows of at least this many classes take a work group each in CrossEntropyLoss.
constexpr long kRowClasses = 256;
// Host CPU devices: CrossEntropyLoss work items (each a run of contiguous rows) at most.
constexpr long kCpuRowChunks = 256;

BuildOption ClassOptions(DataType dtype, DataType target) {
  BuildOption options;
  options.AddDefinition("DTYPE", GetDataTypeCode(dtype))
      .AddDefinition("DTYPE_T", GetDataTypeCode(target))
      .AddDefinitionAutoType("BLOCK_SIZE", kReduceBlockSize);
  return options;
}
}  // namespace

ClassLossKernel::ClassLossKernel(std::string name, std::string program, LossReduction reduction,
                                 long ignore_index, float label_smoothing, Tensor input,
                                 Tensor target, Tensor weight, Tensor out, Tensor total_weight)
    : LossKernel(std::move(name), reduction),
      program_(std::move(program)),
      ignore_index_(ignore_index),
      label_smoothing_(label_smoothing),
      input_(std::move(input)),
      target_(std::move(target)),
      weight_(std::move(weight)),
      out_(std::move(out)),
      total_weight_(std::move(total_weight)) {}

bool ClassLossKernel::Verify() const {
  CheckReduction();
  const ClassLayout layout = CheckClassInputs(name(), input_, target_, weight_);
  if (!(label_smoothing_ >= 0.0f && label_smoothing_ <= 1.0f)) {
    throw std::invalid_argument(
        StrCat(name(), ": label_smoothing must be in [0, 1], got ", label_smoothing_));
  }
  CheckSameType("out", out_, input_.dtype());
  CheckShape("out", out_, ResultSizes(layout.target_sizes));
  CheckContiguous(name(), "out", out_);
  if (Defined(total_weight_)) {
    CheckSameType("total_weight", total_weight_, input_.dtype());
    CheckShape("total_weight", total_weight_, {1});
    CheckContiguous(name(), "total_weight", total_weight_);
  }
  return true;
}

void ClassLossKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const ClassLayout layout = CheckClassInputs(name(), input_, target_, weight_);
  const long items = layout.outer * layout.inner;
  const bool has_tw = Defined(total_weight_);
  if (items == 0 && !Reduced() && !has_tw) return;
  const bool empty = items == 0 || layout.classes == 0;
  // Stand-ins for tensors without elements, never read: a tensor that has memory.
  const Tensor& stand_in = Reduced() || !has_tw ? out_ : total_weight_;
  Tensor x = empty ? stand_in : Dense(session, input_, input_.shape().sizes());
  Tensor t = items == 0 ? stand_in : Dense(session, target_, layout.target_sizes);
  const bool has_w = Defined(weight_) && layout.classes > 0;
  Tensor w = has_w ? Dense(session, weight_, weight_.shape().sizes()) : x;
  const bool smoothing = program_ == "cross_entropy_loss.cl";
  const float eps = label_smoothing_;
  const ClassLayout l = layout;
  const long ignore = ignore_index_;
  const BuildOption options = ClassOptions(input_.dtype(), target_.dtype());
  if (smoothing && items > 0 && l.inner == 1 && session->host_cpu()) {
    // Contiguous rows on the host CPU: each work item takes a run of rows.
    const long chunks = std::min(items, kCpuRowChunks);
    const long per = (items + chunks - 1) / chunks;
    Buffer part = PartialSums(session, chunks);
    MakeSubKernel(session, "Loss::" + program_, LossSources(program_), options, "ce_row_chunks")
        ->SetArgs(static_cast<cl_long>(items), static_cast<cl_long>(per), part,
                  static_cast<int>(!Reduced()), MakeLossArg(out_), MakeLossArg(x), MakeLossArg(t),
                  MakeLossArg(w), static_cast<int>(has_w), static_cast<cl_long>(l.classes),
                  static_cast<cl_long>(l.inner), static_cast<cl_long>(ignore), eps)
        .SetGlobal({static_cast<size_t>(chunks)})
        .SetLocal({1});
    if (Reduced()) CompileFinal(session, program_, options, chunks, part, -1.0f, out_, nullptr);
    return;
  }
  if (smoothing && items > 0 && layout.classes >= kRowClasses) {
    // Long rows: one group per item, then the frame's final fold.
    Buffer part = PartialSums(session, items);
    auto rows =
        MakeSubKernel(session, "Loss::" + program_, LossSources(program_), options, "ce_rows");
    rows->SetArgs(part, static_cast<int>(!Reduced()), MakeLossArg(out_), MakeLossArg(x),
                  MakeLossArg(t), MakeLossArg(w), static_cast<int>(has_w),
                  static_cast<cl_long>(l.classes), static_cast<cl_long>(l.inner),
                  static_cast<cl_long>(ignore), eps);
    const auto block = static_cast<size_t>(kReduceBlockSize);
    rows->SetGlobal({block * static_cast<size_t>(items)}).SetLocal({block});
    if (Reduced()) CompileFinal(session, program_, options, items, part, -1.0f, out_, nullptr);
    return;
  }
  CompileForward(session, program_, options, items, -1.0f, out_, has_tw ? &total_weight_ : nullptr,
                 [&](KernelUnit& unit) {
                   unit.SetArg(MakeLossArg(x))
                       .SetArg(MakeLossArg(t))
                       .SetArg(MakeLossArg(w))
                       .SetArg(static_cast<int>(has_w))
                       .SetArg(static_cast<cl_long>(l.classes))
                       .SetArg(static_cast<cl_long>(l.inner))
                       .SetArg(static_cast<cl_long>(ignore));
                   if (smoothing) unit.SetArg(eps);
                 });
}

NllLossBackwardKernel::NllLossBackwardKernel(std::string name, const NllLossBackwardOption& option,
                                             Tensor grad_output, Tensor input, Tensor target,
                                             Tensor weight, Tensor total_weight, Tensor grad_input)
    : LossKernel(std::move(name), option.reduction),
      ignore_index_(option.ignore_index),
      grad_output_(std::move(grad_output)),
      input_(std::move(input)),
      target_(std::move(target)),
      weight_(std::move(weight)),
      total_weight_(std::move(total_weight)),
      grad_input_(std::move(grad_input)) {}

bool NllLossBackwardKernel::Verify() const {
  CheckReduction();
  const ClassLayout layout = CheckClassInputs(name(), input_, target_, weight_);
  CheckSameType("grad_output", grad_output_, input_.dtype());
  CheckShape("grad_output", grad_output_, ResultSizes(layout.target_sizes));
  CheckSameType("total_weight", total_weight_, input_.dtype());
  CheckShape("total_weight", total_weight_, {1});
  CheckSameType("grad_input", grad_input_, input_.dtype());
  CheckShape("grad_input", grad_input_, input_.shape().sizes());
  CheckContiguous(name(), "grad_input", grad_input_);
  return true;
}

void NllLossBackwardKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const ClassLayout l = CheckClassInputs(name(), input_, target_, weight_);
  const long count = ElementCount(input_);
  if (count == 0) return;
  Tensor go = Dense(session, grad_output_, grad_output_.shape().sizes());
  Tensor tw = Dense(session, total_weight_, {1});
  Tensor t = Dense(session, target_, l.target_sizes);
  const bool has_w = Defined(weight_);
  Tensor w = has_w ? Dense(session, weight_, weight_.shape().sizes()) : go;
  MakeSubKernel(session, "Loss::nlllossbackward.cl", LossSources("nlllossbackward.cl"),
                ClassOptions(input_.dtype(), target_.dtype()), "nll_backward")
      ->SetArgs(static_cast<cl_long>(count), MakeLossArg(go),
                static_cast<cl_long>(Reduced() ? 0 : 1), MakeLossArg(tw),
                static_cast<int>(reduction() == LossReduction::kMean), MakeLossArg(grad_input_),
                MakeLossArg(t), MakeLossArg(w), static_cast<int>(has_w),
                static_cast<cl_long>(l.classes), static_cast<cl_long>(l.inner),
                static_cast<cl_long>(ignore_index_))
      .SetGlobal({static_cast<size_t>(count)});
}

namespace {
using TO = const TensorOption&;
using CB = const Buffer&;
using MB = Buffer&;

template <typename Option, typename... Args, typename F>
void Register(const std::string& name, F make) {
  ClModule::singleton().AddKernelImpl(
      name, MakeFunctionWrapper<std::shared_ptr<KernelImpl>, const Option&, Args...>(
                name, [make, name](const Option& o, Args... a) -> std::shared_ptr<KernelImpl> {
                  return make(name, o, a...);
                }));
}
}  // namespace

NERVA_STATIC_REGISTER {
  Register<NllLossOption, TO, CB, TO, CB, TO, CB, TO, MB, TO, MB>(
      "NllLoss", [](const std::string& n, const NllLossOption& o, TO xo, CB x, TO to, CB t, TO wo,
                    CB w, TO oo, MB out, TO two, MB tw) {
        return std::make_shared<ClassLossKernel>(
            n, "nllloss.cl", o.reduction, o.ignore_index, 0.0f, MakeTensor(xo, x),
            MakeTensor(to, t), MakeTensor(wo, w), MakeTensor(oo, out), MakeTensor(two, tw));
      });
  Register<NllLossOption, TO, CB, TO, CB, TO, MB, TO, MB>(
      "NllLossNoWeight", [](const std::string& n, const NllLossOption& o, TO xo, CB x, TO to, CB t,
                            TO oo, MB out, TO two, MB tw) {
        return std::make_shared<ClassLossKernel>(n, "nllloss.cl", o.reduction, o.ignore_index, 0.0f,
                                                 MakeTensor(xo, x), MakeTensor(to, t), None(),
                                                 MakeTensor(oo, out), MakeTensor(two, tw));
      });
  Register<CrossEntropyLossOption, TO, CB, TO, CB, TO, CB, TO, MB>(
      "CrossEntropyLoss", [](const std::string& n, const CrossEntropyLossOption& o, TO xo, CB x,
                             TO to, CB t, TO wo, CB w, TO oo, MB out) {
        return std::make_shared<ClassLossKernel>(
            n, "cross_entropy_loss.cl", o.reduction, o.ignore_index, o.label_smoothing,
            MakeTensor(xo, x), MakeTensor(to, t), MakeTensor(wo, w), MakeTensor(oo, out), None());
      });
  Register<CrossEntropyLossOption, TO, CB, TO, CB, TO, MB>(
      "CrossEntropyLossNoWeight", [](const std::string& n, const CrossEntropyLossOption& o, TO xo,
                                     CB x, TO to, CB t, TO oo, MB out) {
        return std::make_shared<ClassLossKernel>(
            n, "cross_entropy_loss.cl", o.reduction, o.ignore_index, o.label_smoothing,
            MakeTensor(xo, x), MakeTensor(to, t), None(), MakeTensor(oo, out), None());
      });
  Register<NllLossBackwardOption, TO, CB, TO, CB, TO, CB, TO, CB, TO, CB, TO, MB>(
      "NllLossBackward", [](const std::string& n, const NllLossBackwardOption& o, TO go, CB g,
                            TO xo, CB x, TO to, CB t, TO wo, CB w, TO two, CB tw, TO gio, MB gi) {
        return std::make_shared<NllLossBackwardKernel>(n, o, MakeTensor(go, g), MakeTensor(xo, x),
                                                       MakeTensor(to, t), MakeTensor(wo, w),
                                                       MakeTensor(two, tw), MakeTensor(gio, gi));
      });
  Register<NllLossBackwardOption, TO, CB, TO, CB, TO, CB, TO, CB, TO, MB>(
      "NllLossBackwardNoWeight", [](const std::string& n, const NllLossBackwardOption& o, TO go,
                                    CB g, TO xo, CB x, TO to, CB t, TO two, CB tw, TO gio, MB gi) {
        return std::make_shared<NllLossBackwardKernel>(n, o, MakeTensor(go, g), MakeTensor(xo, x),
                                                       MakeTensor(to, t), None(),
                                                       MakeTensor(two, tw), MakeTensor(gio, gi));
      });
};

}  // namespace cl
}  // namespace nerva
