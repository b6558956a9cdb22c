#include "nerva/platform/cl/kernel/random/rand_normal.h"

#include <cmath>
#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

void CheckFloatOutput(const std::string& op, DataType dtype) {
  if (dtype != kFloat && dtype != kHalf) {
    throw std::invalid_argument(StrCat(op, ": output type ", dtype,
                                       " is not supported (DataType::kFloat or DataType::kHalf)"));
  }
}

void CheckParameter(const std::string& op, const char* what, float value, bool positive) {
  if (!std::isfinite(value) || (positive ? !(value > 0.0f) : !(value >= 0.0f))) {
    throw std::invalid_argument(StrCat(op, ": ", what, " ", value, " must be finite and ",
                                       positive ? "positive" : "non-negative"));
  }
}

}  // namespace

RandNormalKernel::RandNormalKernel(const RandNOption& option, const TensorOption& out_opt,
                                   Buffer& out)
    : RandomFillKernel("RandNormal", out_opt, out, option.use_seed, option.seed), option_(option) {}

bool RandNormalKernel::Verify() const {
  CheckFloatOutput(name(), out().dtype());
  VerifyOutput();
  if (!std::isfinite(option_.mean)) {
    throw std::invalid_argument(StrCat(name(), ": mean ", option_.mean, " must be finite"));
  }
  CheckParameter(name(), "std", option_.std, false);
  return true;
}

void RandNormalKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const bool update_arg = std::fabs(option_.mean) > 1e-6f || std::fabs(option_.std - 1.0f) > 1e-6f;
  BuildOption options;
  options.AddOptionIf(update_arg, "-DUPDATE_ARG");
  if (update_arg) {
    CompileFillWith(session, "random_normal.cl", "random_normal_philox", "random_normal_philox_cpu",
                    options, NormalOffsetAdvance, option_.mean, option_.std);
  } else {
    CompileFillWith(session, "random_normal.cl", "random_normal_philox", "random_normal_philox_cpu",
                    options, NormalOffsetAdvance);
  }
}

LogNormalKernel::LogNormalKernel(const LogNormalOption& option, const TensorOption& out_opt,
                                 Buffer& out)
    : RandomFillKernel("LogNormal", out_opt, out, option.use_seed, option.seed), option_(option) {}

bool LogNormalKernel::Verify() const {
  CheckFloatOutput(name(), out().dtype());
  VerifyOutput();
  if (!std::isfinite(option_.mean)) {
    throw std::invalid_argument(StrCat(name(), ": mean ", option_.mean, " must be finite"));
  }
  CheckParameter(name(), "std", option_.std, true);
  return true;
}

void LogNormalKernel::Compile(std::shared_ptr<SessionImpl> session) {
  CompileFill(session, "log_normal.cl", "log_normal_philox", BuildOption(), NormalOffsetAdvance,
              option_.mean, option_.std);
}

ExponentialKernel::ExponentialKernel(const ExponentialOption& option, const TensorOption& out_opt,
                                     Buffer& out)
    : RandomFillKernel("Exponential", out_opt, out, option.use_seed, option.seed),
      option_(option) {}

bool ExponentialKernel::Verify() const {
  CheckFloatOutput(name(), out().dtype());
  VerifyOutput();
  CheckParameter(name(), "lambd", option_.lambd, true);
  return true;
}

void ExponentialKernel::Compile(std::shared_ptr<SessionImpl> session) {
  CompileFill(session, "exponential.cl", "exponential", BuildOption(), UniformOffsetAdvance,
              option_.lambd);
}

NERVA_STATIC_REGISTER {
  auto& module = ClModule::singleton();
  module.AddKernel<RandNormalKernel, const RandNOption&, const TensorOption&, Buffer&>(
      "RandNormal");
  module.AddKernel<LogNormalKernel, const LogNormalOption&, const TensorOption&, Buffer&>(
      "LogNormal");
  module.AddKernel<ExponentialKernel, const ExponentialOption&, const TensorOption&, Buffer&>(
      "Exponential");
};

}  // namespace cl
}  // namespace nerva
