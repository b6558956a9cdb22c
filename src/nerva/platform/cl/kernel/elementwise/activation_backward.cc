#include "nerva/platform/cl/kernel/elementwise/activation_backward.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <utility>

#include "linvo/conversion.h"
#include "nerva/kernel/train_option.h"
#include "nerva/platform/cl/module.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

float RoundToType(double value, DataType type) {
  const float f = static_cast<float>(value);
  switch (type) {
    case kHalf:
      return linvo::HalfToFloat(linvo::FloatToHalf(f));
    case kBFloat:
      return linvo::BFloatToFloat(linvo::FloatToBFloat(f));
    default:
      return IsFloat(type) ? f : static_cast<float>(std::trunc(value));
  }
}

ActivationBackwardKernel::ActivationBackwardKernel(
    GradientDef def, GradientBinder bind, const TensorOption& grad_output_opt,
    const Buffer& grad_output, const TensorOption& saved_opt, const Buffer& saved,
    const TensorOption& grad_input_opt, Buffer& grad_input)
    : ElementwiseKernel(def.name,
                        {MakeTensor(grad_output_opt, grad_output), MakeTensor(saved_opt, saved)},
                        MakeTensor(grad_input_opt, grad_input), {"grad_output", def.saved}),
      def_(std::move(def)),
      bind_(std::move(bind)) {}

DataType ActivationBackwardKernel::ComputeType() const {
  const DataType g = input_type(0), s = input_type(1);
  if (g == kBool || s == kBool) ThrowUnsupportedTypes("gradient");
  if (!def_.integers && (!IsFloat(g) || !IsFloat(s))) ThrowUnsupportedTypes("gradient");
  return PromoteTypes({g, s});
}

bool ActivationBackwardKernel::Verify() const {
  VerifyShapes();
  VerifyOutputType(ComputeType());
  return true;
}

void ActivationBackwardKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const DataType t = ComputeType();
  const GradientBinder bind = bind_;
  ElementwiseSpec spec{def_.program, {t, t}, t, BuildOption()};
  spec.op16 = def_.op16;
  CompileElementwise(session, spec, [bind, t](KernelUnit& unit) { bind(unit, t); });
}

namespace {

// Registers `def` for the argument list (grad_output, saved, grad_input), preceded by an
// option record of type Option unless it is void. `make` turns the option into the binder
// and may reject it (std::invalid_argument).
template <typename Option, typename Make>
void Register(const GradientDef& def, Make make) {
  using Ptr = std::shared_ptr<KernelImpl>;
  if constexpr (std::is_void_v<Option>) {
    ClModule::singleton().AddKernelImpl(
        def.name,
        MakeFunctionWrapper<Ptr, const TensorOption&, const Buffer&, const TensorOption&,
                            const Buffer&, const TensorOption&, Buffer&>(
            def.name,
            [def, make](const TensorOption& go_opt, const Buffer& go, const TensorOption& s_opt,
                        const Buffer& s, const TensorOption& gi_opt, Buffer& gi) -> Ptr {
              return std::make_shared<ActivationBackwardKernel>(def, make(), go_opt, go, s_opt, s,
                                                                gi_opt, gi);
            }));
  } else {
    ClModule::singleton().AddKernelImpl(
        def.name,
        MakeFunctionWrapper<Ptr, const Option&, const TensorOption&, const Buffer&,
                            const TensorOption&, const Buffer&, const TensorOption&, Buffer&>(
            def.name,
            [def, make](const Option& option, const TensorOption& go_opt, const Buffer& go,
                        const TensorOption& s_opt, const Buffer& s, const TensorOption& gi_opt,
                        Buffer& gi) -> Ptr {
              return std::make_shared<ActivationBackwardKernel>(def, make(option), go_opt, go,
                                                                s_opt, s, gi_opt, gi);
            }));
  }
}

GradientBinder NoParams() {
  return [](KernelUnit&, DataType) {};
}

GradientBinder EluParams(const ELUBackwardOption& o) {
  if (o.is_result && o.alpha < 0) {
    throw std::invalid_argument(StrCat("ELUBackward: is_result with a negative alpha (", o.alpha,
                                       ") is not supported; the forward must not run in place"));
  }
  const float negcoef = o.alpha * o.scale, poscoef = o.scale, input_scale = o.input_scale;
  const float is_result = o.is_result ? 1.0f : 0.0f;
  return [=](KernelUnit& unit, DataType) {
    unit.SetArg(negcoef).SetArg(poscoef).SetArg(input_scale).SetArg(is_result);
  };
}

// x passes where 0 < alpha * x + beta < 1, that is strictly between the two roots.
GradientBinder HardSigmoidParams(const HardSigmoidBackwardOption& o) {
  double lo = 0, hi = 0;
  if (o.alpha != 0) {
    lo = -static_cast<double>(o.beta) / o.alpha;
    hi = (1.0 - o.beta) / o.alpha;
    if (lo > hi) std::swap(lo, hi);
  }
  const float alpha = o.alpha;
  return [=](KernelUnit& unit, DataType t) {
    unit.SetArg(RoundToType(lo, t)).SetArg(RoundToType(hi, t)).SetArg(alpha);
  };
}

GradientBinder HardTanHParams(const HardTanHBackwardOption& o) {
  const double lo = o.min_val, hi = o.max_val;
  return [=](KernelUnit& unit, DataType t) {
    unit.SetArg(RoundToType(lo, t)).SetArg(RoundToType(hi, t));
  };
}

GradientBinder LeakyReluParams(const LeakyReluBackwardOption& o) {
  if (o.self_is_result && o.negative_slope < 0) {
    throw std::invalid_argument(StrCat("LeakyReluBackward: self_is_result with a negative slope (",
                                       o.negative_slope,
                                       ") is not supported; the forward must not run in place"));
  }
  const float slope = o.negative_slope;
  return [=](KernelUnit& unit, DataType) { unit.SetArg(slope); };
}

// Inside [lo, hi] the gradient is g / (x (1 - x)); outside it is `outside`.
GradientBinder LogitParams(const LogitBackwardOption& o) {
  const double eps = o.eps;
  return [=](KernelUnit& unit, DataType t) {
    if (eps < 0) {
      unit.SetArg(0.0f).SetArg(1.0f).SetArg(std::numeric_limits<float>::quiet_NaN());
      return;
    }
    const float lo = RoundToType(eps, t);
    unit.SetArg(lo).SetArg(RoundToType(1.0 - lo, t)).SetArg(0.0f);
  };
}

GradientBinder SwishParams(const SwishBackwardOption& o) {
  const float alpha = o.alpha;
  return [=](KernelUnit& unit, DataType) { unit.SetArg(alpha); };
}

// Integer tensors compare with the threshold truncated toward zero, saturated to the
// range of long (NaN as 0).
GradientBinder ThresholdParams(const ThresholdBackwardOption& o) {
  const double threshold = o.threshold;
  const double limit = 9.2e18;  // just inside the range of long
  const long as_long =
      std::isnan(threshold) ? 0 : static_cast<long>(std::max(-limit, std::min(limit, threshold)));
  return
      [=](KernelUnit& unit, DataType t) { unit.SetArg(RoundToType(threshold, t)).SetArg(as_long); };
}

NERVA_STATIC_REGISTER {
  Register<void>({"ReLUBackward", "relu_backward.cl", "input", true}, NoParams);
  Register<void>({"SigmoidBackward", "sigmoid_backward.cl", "output", false}, NoParams);
  Register<void>({"SiluBackward", "silu_backward.cl", "input", false}, NoParams);
  Register<void>({"TanHBackward", "tanh_backward.cl", "output", false}, NoParams);
  Register<void>({"GeLUBackward", "gelu_backward.cl", "input", false, true}, NoParams);
  Register<void>({"HardSwishBackward", "hardswish_backward.cl", "input", false}, NoParams);
  Register<void>({"LogSigmoidBackward", "log_sigmoid_backward.cl", "input", false}, NoParams);
  Register<void>({"MishBackward", "mishbackward.cl", "input", false}, NoParams);
  Register<void>({"SReLUBackward", "srelu_backward.cl", "input", false}, NoParams);
  Register<ELUBackwardOption>({"ELUBackward", "elu_backward.cl", "self_or_result", false},
                              EluParams);
  Register<HardSigmoidBackwardOption>(
      {"HardSigmoidBackward", "hardsigmoid_backward.cl", "input", false}, HardSigmoidParams);
  Register<HardTanHBackwardOption>({"HardTanHBackward", "hardtanh_backward.cl", "input", false},
                                   HardTanHParams);
  Register<LeakyReluBackwardOption>({"LeakyReluBackward", "leakyrelu_backward.cl", "input", false},
                                    LeakyReluParams);
  Register<LogitBackwardOption>({"LogitBackward", "logit_backward.cl", "input", false},
                                LogitParams);
  Register<SwishBackwardOption>({"SwishBackward", "swish_backward.cl", "input", false},
                                SwishParams);
  Register<ThresholdBackwardOption>({"ThresholdBackward", "threshold_backward.cl", "input", true},
                                    ThresholdParams);
};

}  // namespace

}  // namespace cl
}  // namespace nerva
