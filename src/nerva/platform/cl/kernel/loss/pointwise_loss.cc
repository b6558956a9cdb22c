#include "nerva/platform/cl/kernel/loss/pointwise_loss.h"

#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"
#include "nerva/platform/cl/kernel/reduce/reduce_util.h"
#include "nerva/platform/cl/module.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {
bool Defined(const Tensor& t) {
  return !t.shape().sizes().empty();
}
// An optional input that is left out.
Tensor None() {
  return MakeTensor(TensorOption{Shape(), kFloat}, Buffer());
}
}  // namespace

PointwiseLossKernel::PointwiseLossKernel(std::string name, std::string program,
                                         LossReduction reduction, Tensor input, Tensor target,
                                         Tensor weight, Tensor pos_weight, Tensor out,
                                         bool weighted)
    : LossKernel(std::move(name), reduction),
      program_(std::move(program)),
      input_(std::move(input)),
      target_(std::move(target)),
      weight_(std::move(weight)),
      pos_weight_(std::move(pos_weight)),
      out_(std::move(out)),
      weighted_(weighted) {}

bool PointwiseLossKernel::Verify() const {
  CheckReduction();
  CheckFloat("input", input_);
  const auto& sizes = input_.shape().sizes();
  CheckSameType("target", target_, input_.dtype());
  CheckShape("target", target_, sizes);
  if (Defined(weight_)) {
    CheckSameType("weight", weight_, input_.dtype());
    CheckBroadcast("weight", weight_, sizes);
  }
  if (Defined(pos_weight_)) {
    CheckSameType("pos_weight", pos_weight_, input_.dtype());
    CheckBroadcast("pos_weight", pos_weight_, sizes);
  }
  CheckSameType("out", out_, input_.dtype());
  CheckShape("out", out_, ResultSizes(sizes));
  CheckContiguous(name(), "out", out_);
  if (sizes.size() > 8) throw std::invalid_argument(StrCat(name(), ": input rank exceeds 8"));
  return true;
}

void PointwiseLossKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const auto& sizes = input_.shape().sizes();
  const long count = ElementCount(input_);
  if (count == 0 && !Reduced()) return;
  Tensor x = count ? Dense(session, input_, sizes) : input_;
  Tensor t = count ? Dense(session, target_, sizes) : target_;
  const bool has_w = count && Defined(weight_);
  const bool has_pw = count && Defined(pos_weight_);
  Tensor w = has_w ? Dense(session, weight_, sizes) : x;
  Tensor pw = has_pw ? Dense(session, pos_weight_, sizes) : x;
  if (count == 0) x = t = w = pw = out_;
  const bool weighted = weighted_;
  CompileForward(session, program_, LossOptions(input_.dtype()), count, static_cast<float>(count),
                 out_, nullptr, [&](KernelUnit& unit) {
                   unit.SetArg(MakeLossArg(x)).SetArg(MakeLossArg(t));
                   if (!weighted) return;
                   unit.SetArg(MakeLossArg(w)).SetArg(static_cast<int>(has_w));
                   if (program_ != "bce_with_logits_loss.cl") return;
                   unit.SetArg(MakeLossArg(pw)).SetArg(static_cast<int>(has_pw));
                 });
}

PointwiseLossBackwardKernel::PointwiseLossBackwardKernel(std::string name, std::string program,
                                                         LossReduction reduction,
                                                         Tensor grad_output, Tensor input,
                                                         Tensor target, Tensor weight,
                                                         Tensor grad_input, bool weighted)
    : LossKernel(std::move(name), reduction),
      program_(std::move(program)),
      grad_output_(std::move(grad_output)),
      input_(std::move(input)),
      target_(std::move(target)),
      weight_(std::move(weight)),
      grad_input_(std::move(grad_input)),
      weighted_(weighted) {}

bool PointwiseLossBackwardKernel::Verify() const {
  CheckReduction();
  CheckFloat("input", input_);
  const auto& sizes = input_.shape().sizes();
  CheckSameType("grad_output", grad_output_, input_.dtype());
  CheckShape("grad_output", grad_output_, ResultSizes(sizes));
  CheckSameType("target", target_, input_.dtype());
  CheckShape("target", target_, sizes);
  if (Defined(weight_)) {
    CheckSameType("weight", weight_, input_.dtype());
    CheckBroadcast("weight", weight_, sizes);
  }
  CheckSameType("grad_input", grad_input_, input_.dtype());
  CheckShape("grad_input", grad_input_, sizes);
  CheckContiguous(name(), "grad_input", grad_input_);
  if (sizes.size() > 8) throw std::invalid_argument(StrCat(name(), ": input rank exceeds 8"));
  return true;
}

void PointwiseLossBackwardKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const auto& sizes = input_.shape().sizes();
  const long count = ElementCount(input_);
  if (count == 0) return;
  Tensor go = Dense(session, grad_output_, grad_output_.shape().sizes());
  Tensor x = Dense(session, input_, sizes);
  Tensor t = Dense(session, target_, sizes);
  const bool has_w = Defined(weight_);
  Tensor w = has_w ? Dense(session, weight_, sizes) : x;
  Tensor gi = grad_input_;
  const bool weighted = weighted_;
  CompileBackward(session, program_, LossOptions(input_.dtype()), count, go, gi,
                  [&](KernelUnit& unit) {
                    unit.SetArg(MakeLossArg(x)).SetArg(MakeLossArg(t));
                    if (weighted) unit.SetArg(MakeLossArg(w)).SetArg(static_cast<int>(has_w));
                  });
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

// Forward losses of input, target -> out.
template <typename Option>
void RegisterPlain(const std::string& name, const std::string& program) {
  Register<Option, TO, CB, TO, CB, TO, MB>(
      name,
      [program](const std::string& n, const Option& o, TO xo, CB x, TO to, CB t, TO oo, MB out) {
        return std::make_shared<PointwiseLossKernel>(n, program, o.reduction, MakeTensor(xo, x),
                                                     MakeTensor(to, t), None(), None(),
                                                     MakeTensor(oo, out), false);
      });
}

// Gradients of grad_output, input, target -> grad_input.
template <typename Option>
void RegisterPlainBackward(const std::string& name, const std::string& program) {
  Register<Option, TO, CB, TO, CB, TO, CB, TO, MB>(
      name, [program](const std::string& n, const Option& o, TO go, CB g, TO xo, CB x, TO to, CB t,
                      TO gio, MB gi) {
        return std::make_shared<PointwiseLossBackwardKernel>(
            n, program, o.reduction, MakeTensor(go, g), MakeTensor(xo, x), MakeTensor(to, t),
            None(), MakeTensor(gio, gi), false);
      });
}

std::shared_ptr<KernelImpl> Weighted(const std::string& n, LossReduction r,
                                     const std::string& program, TO xo, CB x, TO to, CB t,
                                     const Tensor& w, const Tensor& pw, TO oo, MB out) {
  return std::make_shared<PointwiseLossKernel>(n, program, r, MakeTensor(xo, x), MakeTensor(to, t),
                                               w, pw, MakeTensor(oo, out), true);
}
}  // namespace

NERVA_STATIC_REGISTER {
  RegisterPlain<MseLossOption>("MseLoss", "mseloss.cl");
  RegisterPlain<L1LossOption>("L1Loss", "l1loss.cl");
  RegisterPlain<SoftMarginLossOption>("SoftMarginLoss", "softmarginloss.cl");
  RegisterPlainBackward<MseLossBackwardOption>("MseLossBackward", "mselossbackward.cl");
  RegisterPlainBackward<SoftMarginLossBackwardOption>("SoftMarginLossBackward",
                                                      "softmarginlossbackward.cl");
  Register<BCELossOption, TO, CB, TO, CB, TO, CB, TO, MB>(
      "BCELoss", [](const std::string& n, const BCELossOption& o, TO xo, CB x, TO to, CB t, TO wo,
                    CB w, TO oo, MB out) {
        return Weighted(n, o.reduction, "bce_loss.cl", xo, x, to, t, MakeTensor(wo, w), None(), oo,
                        out);
      });
  Register<BCELossOption, TO, CB, TO, CB, TO, MB>(
      "BCELossNoWeight",
      [](const std::string& n, const BCELossOption& o, TO xo, CB x, TO to, CB t, TO oo, MB out) {
        return Weighted(n, o.reduction, "bce_loss.cl", xo, x, to, t, None(), None(), oo, out);
      });
  Register<BCEWithLogitsLossOption, TO, CB, TO, CB, TO, MB>(
      "BCEWithLogitsLoss", [](const std::string& n, const BCEWithLogitsLossOption& o, TO xo, CB x,
                              TO to, CB t, TO oo, MB out) {
        return Weighted(n, o.reduction, "bce_with_logits_loss.cl", xo, x, to, t, None(), None(), oo,
                        out);
      });
  Register<BCEWithLogitsLossOption, TO, CB, TO, CB, TO, CB, TO, MB>(
      "BCEWithLogitsLossWithWeight", [](const std::string& n, const BCEWithLogitsLossOption& o,
                                        TO xo, CB x, TO to, CB t, TO wo, CB w, TO oo, MB out) {
        return Weighted(n, o.reduction, "bce_with_logits_loss.cl", xo, x, to, t, MakeTensor(wo, w),
                        None(), oo, out);
      });
  Register<BCEWithLogitsLossOption, TO, CB, TO, CB, TO, CB, TO, CB, TO, MB>(
      "BCEWithLogitsLossWithPosWeight",
      [](const std::string& n, const BCEWithLogitsLossOption& o, TO xo, CB x, TO to, CB t, TO wo,
         CB w, TO pwo, CB pw, TO oo, MB out) {
        return Weighted(n, o.reduction, "bce_with_logits_loss.cl", xo, x, to, t, MakeTensor(wo, w),
                        MakeTensor(pwo, pw), oo, out);
      });
  Register<BinaryCrossEntropyBackwardOption, TO, CB, TO, CB, TO, CB, TO, CB, TO, MB>(
      "BinaryCrossEntropyBackward",
      [](const std::string& n, const BinaryCrossEntropyBackwardOption& o, TO go, CB g, TO xo, CB x,
         TO to, CB t, TO wo, CB w, TO gio, MB gi) {
        return std::make_shared<PointwiseLossBackwardKernel>(
            n, "binary_cross_entropy_backward.cl", o.reduction, MakeTensor(go, g),
            MakeTensor(xo, x), MakeTensor(to, t), MakeTensor(wo, w), MakeTensor(gio, gi), true);
      });
};

}  // namespace cl
}  // namespace nerva
