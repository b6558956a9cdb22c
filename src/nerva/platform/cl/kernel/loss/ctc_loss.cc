#include "nerva/platform/cl/kernel/loss/ctc_loss.h"

#include <stdexcept>

#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"
#include "nerva/platform/cl/kernel/reduce/reduce_util.h"
#include "nerva/platform/cl/module.h"
#include "nerva/type_traits.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {
bool IsIndexType(DataType t) {
  return t == kInt64 || t == kInt32;
}
}  // namespace

CtcLossKernel::CtcLossKernel(std::string name, const CTCLossOption& option, Tensor log_probs,
                             Tensor targets, Tensor input_lengths, Tensor target_lengths,
                             Tensor grad_output, Tensor neg_log_likelihood, Tensor log_alpha,
                             Tensor out, Tensor log_beta, bool backward)
    : LossKernel(std::move(name), option.reduction),
      option_(option),
      log_probs_(std::move(log_probs)),
      targets_(std::move(targets)),
      input_lengths_(std::move(input_lengths)),
      target_lengths_(std::move(target_lengths)),
      grad_output_(std::move(grad_output)),
      nll_(std::move(neg_log_likelihood)),
      log_alpha_(std::move(log_alpha)),
      out_(std::move(out)),
      log_beta_(std::move(log_beta)),
      backward_(backward) {}

CtcLayout CtcLossKernel::Layout() const {
  CtcLayout l;
  const auto& lp = log_probs_.shape().sizes();
  if (lp.size() != 2 && lp.size() != 3) {
    throw std::runtime_error(
        StrCat(name(), ": log_probs must be (T, N, C) or (T, C), got ", log_probs_.shape()));
  }
  l.batched = lp.size() == 3;
  l.steps = lp[0];
  l.batch = l.batched ? lp[1] : 1;
  l.classes = lp.back();
  const auto& tg = targets_.shape().sizes();
  l.padded = !l.batched || tg.size() == 2;
  if (l.padded) {
    const std::vector<long> want_rank =
        l.batched ? std::vector<long>{l.batch} : std::vector<long>{};
    if (tg.size() != want_rank.size() + 1 || (l.batched && tg[0] != l.batch)) {
      throw std::runtime_error(StrCat(name(), ": targets must be (N, S) or concatenated (sum of ",
                                      "target lengths), got ", targets_.shape(), " for log_probs ",
                                      log_probs_.shape()));
    }
    l.max_s = tg.back();
  } else if (tg.size() != 1) {
    throw std::runtime_error(
        StrCat(name(), ": targets must be (N, S) or 1-D, got ", targets_.shape()));
  }
  l.total_targets = tg.empty() ? 0 : Product(tg, 0, tg.size());
  const auto& la = log_alpha_.shape().sizes();
  if (la.size() != 3 || la[0] != l.batch || la[1] != l.steps || la[2] < 1) {
    throw std::runtime_error(StrCat(name(), ": log_alpha must be (", l.batch, ", ", l.steps,
                                    ", K) with K >= 1, got ", log_alpha_.shape()));
  }
  l.width = la[2];
  return l;
}

bool CtcLossKernel::Verify() const {
  CheckReduction();
  CheckFloat("log_probs", log_probs_);
  const CtcLayout l = Layout();
  if (!IsIndexType(targets_.dtype())) {
    throw std::invalid_argument(
        StrCat(name(), ": targets must be int64 or int32, got ", targets_.dtype()));
  }
  if (!IsIndexType(input_lengths_.dtype()) || target_lengths_.dtype() != input_lengths_.dtype()) {
    throw std::invalid_argument(StrCat(name(), ": input_lengths and target_lengths must both be ",
                                       "int64 or int32, got ", input_lengths_.dtype(), " and ",
                                       target_lengths_.dtype()));
  }
  CheckShape("input_lengths", input_lengths_, {l.batch});
  CheckShape("target_lengths", target_lengths_, {l.batch});
  if (option_.blank < 0 || option_.blank >= l.classes) {
    throw std::out_of_range(
        StrCat(name(), ": blank ", option_.blank, " is outside [0, ", l.classes, ")"));
  }
  CheckSameType("log_alpha", log_alpha_, kFloat);
  CheckContiguous(name(), "log_alpha", log_alpha_);
  const std::vector<long> loss_sizes = ResultSizes({l.batch});
  if (backward_) {
    CheckSameType("grad_output", grad_output_, log_probs_.dtype());
    CheckShape("grad_output", grad_output_, loss_sizes);
    CheckShape("neg_log_likelihood", nll_, {l.batch});
    CheckSameType("log_beta", log_beta_, kFloat);
    CheckShape("log_beta", log_beta_, log_alpha_.shape().sizes());
    CheckContiguous(name(), "log_beta", log_beta_);
    CheckSameType("grad_input", out_, log_probs_.dtype());
    CheckShape("grad_input", out_, log_probs_.shape().sizes());
  } else {
    CheckSameType("loss", out_, log_probs_.dtype());
    CheckShape("loss", out_, loss_sizes);
  }
  CheckContiguous(name(), backward_ ? "grad_input" : "loss", out_);
  if (l.steps == 0 || l.classes == 0) {
    throw std::runtime_error(
        StrCat(name(), ": log_probs ", log_probs_.shape(), " has no time steps or no classes"));
  }
  return true;
}

void CtcLossKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const CtcLayout l = Layout();
  if (l.batch == 0 && !Reduced()) return;
  BuildOption options;
  options.AddDefinition("DTYPE", GetDataTypeCode(log_probs_.dtype()))
      .AddDefinition("DTYPE_T", GetDataTypeCode(targets_.dtype()))
      .AddDefinition("DTYPE_L", GetDataTypeCode(input_lengths_.dtype()))
      .AddDefinitionAutoType("BLOCK_SIZE", kReduceBlockSize);
  Tensor lp = Dense(session, log_probs_, log_probs_.shape().sizes());
  Tensor tg = l.total_targets ? Dense(session, targets_, targets_.shape().sizes()) : lp;
  Tensor il = Dense(session, input_lengths_, {l.batch});
  Tensor tl = Dense(session, target_lengths_, {l.batch});
  const auto block = static_cast<size_t>(kReduceBlockSize);
  const auto bind = [&](KernelUnit& unit) {
    unit.SetArg(MakeLossArg(lp))
        .SetArg(MakeLossArg(tg))
        .SetArg(MakeLossArg(il))
        .SetArg(MakeLossArg(tl))
        .SetArg(static_cast<cl_long>(l.steps))
        .SetArg(static_cast<cl_long>(l.batch))
        .SetArg(static_cast<cl_long>(l.classes))
        .SetArg(static_cast<cl_long>(option_.blank))
        .SetArg(static_cast<int>(l.padded))
        .SetArg(static_cast<cl_long>(l.max_s))
        .SetArg(static_cast<cl_long>(l.total_targets));
  };
  const std::vector<std::string> common = {"common.h", "reduce.h", "loss_frame.cl",
                                           "ctc_common.cl"};
  const auto sources = [&](const std::string& program) {
    std::vector<std::string> s = common;
    s.push_back(program);
    return s;
  };
  if (!backward_) {
    Buffer nll = MakeScratchBuffer(session, std::max(l.batch, 1L) * 4);
    Tensor nll_keep(TensorOption{Shape({std::max(l.batch, 1L)}), kFloat}, nll, 0);
    Dense(session, nll_keep, {std::max(l.batch, 1L)});
    if (l.batch > 0) {
      auto alpha =
          MakeSubKernel(session, "Loss::ctcloss.cl", sources("ctcloss.cl"), options, "ctc_alpha");
      bind(*alpha);
      alpha->SetArg(MakeLossArg(log_alpha_))
          .SetArg(static_cast<cl_long>(l.width))
          .SetArg(nll)
          .SetArg(static_cast<int>(option_.zero_infinity));
      alpha->SetGlobal({block * static_cast<size_t>(l.batch)}).SetLocal({block});
    }
    MakeSubKernel(session, "Loss::ctcloss.cl", sources("ctcloss.cl"), options, "ctc_reduce")
        ->SetArgs(nll, static_cast<cl_long>(l.batch), static_cast<int>(reduction()),
                  MakeLossArg(tl), MakeLossArg(out_))
        .SetGlobal({block})
        .SetLocal({block});
    return;
  }
  if (l.batch == 0) return;
  auto beta = MakeSubKernel(session, "Loss::ctclossbackward_pre.cl",
                            sources("ctclossbackward_pre.cl"), options, "ctc_beta");
  bind(*beta);
  beta->SetArg(MakeLossArg(log_beta_)).SetArg(static_cast<cl_long>(l.width));
  beta->SetGlobal({block * static_cast<size_t>(l.batch)}).SetLocal({block});
  Tensor go = Dense(session, grad_output_, grad_output_.shape().sizes());
  auto grad = MakeSubKernel(session, "Loss::ctclossbackward.cl", sources("ctclossbackward.cl"),
                            options, "ctc_grad");
  bind(*grad);
  grad->SetArg(MakeLossArg(log_alpha_))
      .SetArg(static_cast<cl_long>(l.width))
      .SetArg(MakeLossArg(log_beta_))
      .SetArg(MakeLossArg(go))
      .SetArg(static_cast<int>(reduction()))
      .SetArg(static_cast<int>(option_.zero_infinity))
      .SetArg(MakeLossArg(out_));
  grad->SetGlobal(
      {static_cast<size_t>(l.classes), static_cast<size_t>(l.batch), static_cast<size_t>(l.steps)});
}

namespace {
using TO = const TensorOption&;
using CB = const Buffer&;
using MB = Buffer&;
Tensor None() {
  return MakeTensor(TensorOption{Shape(), kFloat}, Buffer());
}
}  // namespace

NERVA_STATIC_REGISTER {
  ClModule::singleton().AddKernelImpl(
      "CTCLoss", MakeFunctionWrapper<std::shared_ptr<KernelImpl>, const CTCLossOption&, TO, CB, TO,
                                     CB, TO, CB, TO, CB, TO, MB, TO, MB>(
                     "CTCLoss",
                     [](const CTCLossOption& o, TO lpo, CB lp, TO tgo, CB tg, TO ilo, CB il, TO tlo,
                        CB tl, TO lo, MB loss, TO lao, MB la) -> std::shared_ptr<KernelImpl> {
                       return std::make_shared<CtcLossKernel>(
                           "CTCLoss", o, MakeTensor(lpo, lp), MakeTensor(tgo, tg),
                           MakeTensor(ilo, il), MakeTensor(tlo, tl), None(), None(),
                           MakeTensor(lao, la), MakeTensor(lo, loss), None(), false);
                     }));
  ClModule::singleton().AddKernelImpl(
      "CTCLossBackward",
      MakeFunctionWrapper<std::shared_ptr<KernelImpl>, const CTCLossBackwardOption&, TO, CB, TO, CB,
                          TO, CB, TO, CB, TO, CB, TO, CB, TO, CB, TO, MB, TO, MB>(
          "CTCLossBackward",
          [](const CTCLossBackwardOption& o, TO goo, CB go, TO lpo, CB lp, TO tgo, CB tg, TO ilo,
             CB il, TO tlo, CB tl, TO nlo, CB nl, TO lao, CB la, TO gio, MB gi, TO lbo,
             MB lb) -> std::shared_ptr<KernelImpl> {
            return std::make_shared<CtcLossKernel>(
                "CTCLossBackward", o, MakeTensor(lpo, lp), MakeTensor(tgo, tg), MakeTensor(ilo, il),
                MakeTensor(tlo, tl), MakeTensor(goo, go), MakeTensor(nlo, nl), MakeTensor(lao, la),
                MakeTensor(gio, gi), MakeTensor(lbo, lb), true);
          }));
};

}  // namespace cl
}  // namespace nerva
