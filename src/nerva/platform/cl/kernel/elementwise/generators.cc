#include "nerva/platform/cl/kernel/elementwise/generators.h"

#include <cmath>
#include <cstring>
#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {
cl_ulong Bits(double value) {
  cl_ulong bits;
  std::memcpy(&bits, &value, sizeof(bits));
  return bits;
}

std::string Dims(const std::vector<long>& sizes) {
  return StrCat(Shape(sizes));
}
}  // namespace

GeneratorKernel::GeneratorKernel(std::string name, const TensorOption& out_opt, Buffer& out)
    : ElementwiseKernel(std::move(name), {}, MakeTensor(out_opt, out), {}) {}

void GeneratorKernel::VerifyOutput(const std::vector<long>& expected) const {
  VerifyShapes();
  if (out().shape().sizes() != expected) {
    throw std::runtime_error(StrCat(name(), ": output shape ", Dims(out().shape().sizes()),
                                    " must be ", Dims(expected)));
  }
}

std::shared_ptr<KernelUnit> GeneratorKernel::MakeGenerator(
    const std::shared_ptr<SessionImpl>& session, const std::string& program, DataType value_type,
    BuildOption options) {
  if (out().shape().size() == 0) return nullptr;
  options.AddDefinition("OUT_DTYPE", GetDataTypeCode(out().dtype()))
      .AddDefinition("OUT_CVT", ConversionKind(value_type, out().dtype()));
  return MakeSubKernel(session, ConcatenateStrings(name(), "generator"),
                       {"common.h", "elementwise.h", program}, options, name());
}

ARangeKernel::ARangeKernel(const ARangeOption& option, const TensorOption& out_opt, Buffer& out)
    : GeneratorKernel("ARange", out_opt, out), option_(option) {}

bool ARangeKernel::Verify() const {
  const ARangeOption& o = option_;
  if (o.step == 0 || !std::isfinite(o.start) || !std::isfinite(o.end)) {
    throw std::invalid_argument(StrCat("ARange: step must be nonzero and bounds finite (start ",
                                       o.start, ", end ", o.end, ", step ", o.step, ")"));
  }
  if ((o.step > 0 && o.end < o.start) || (o.step < 0 && o.end > o.start)) {
    throw std::invalid_argument(
        StrCat("ARange: upper bound and larger bound inconsistent with step sign (start ", o.start,
               ", end ", o.end, ", step ", o.step, ")"));
  }
  VerifyOutput({static_cast<long>(std::ceil((o.end - o.start) / o.step))});
  return true;
}

void ARangeKernel::Compile(std::shared_ptr<SessionImpl> session) {
  auto unit = MakeGenerator(session, "arange.cl", kFloat, BuildOption());
  if (!unit) return;
  unit->SetArgs(ClTensor(out()), Bits(option_.start), Bits(option_.step),
                static_cast<float>(option_.start), static_cast<float>(option_.step))
      .SetGlobal({static_cast<size_t>(out().shape().size())});
}

LinspaceKernel::LinspaceKernel(const LinspaceOption& option, const TensorOption& out_opt,
                               Buffer& out)
    : GeneratorKernel("Linspace", out_opt, out), option_(option) {}

bool LinspaceKernel::Verify() const {
  if (option_.steps < 0) {
    throw std::invalid_argument(
        StrCat("Linspace: number of steps must be non-negative, got ", option_.steps));
  }
  VerifyOutput({option_.steps});
  return true;
}

void LinspaceKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const bool integral = !IsFloat(out().dtype());
  BuildOption options;
  options.AddDefinitionAutoType("LIN_DOUBLE", integral);
  auto unit = MakeGenerator(session, "linspace.cl", kFloat, options);
  if (!unit) return;
  const long steps = option_.steps;
  const float start_f = static_cast<float>(option_.start), end_f = static_cast<float>(option_.end);
  const float step_f = steps > 1 ? (end_f - start_f) / static_cast<float>(steps - 1) : 0.0f;
  const double step =
      steps > 1 ? (option_.end - option_.start) / static_cast<double>(steps - 1) : 0;
  unit->SetArgs(ClTensor(out()), steps, start_f, end_f, step_f, Bits(option_.start),
                Bits(option_.end), Bits(step))
      .SetGlobal({static_cast<size_t>(steps)});
}

EyeKernel::EyeKernel(const EyeOption& option, const TensorOption& out_opt, Buffer& out)
    : GeneratorKernel("Eye", out_opt, out), option_(option) {}

bool EyeKernel::Verify() const {
  if (option_.n < 0 || option_.m < 0) {
    throw std::invalid_argument(
        StrCat("Eye: n and m must be non-negative, got ", option_.n, " and ", option_.m));
  }
  VerifyOutput({option_.n, option_.m});
  return true;
}

void EyeKernel::Compile(std::shared_ptr<SessionImpl> session) {
  auto unit = MakeGenerator(session, "eye.cl", kInt32, BuildOption());
  if (!unit) return;
  unit->SetArgs(ClTensor(out()))
      .SetGlobal({static_cast<size_t>(option_.m), static_cast<size_t>(option_.n)});
}

NERVA_STATIC_REGISTER {
  auto& module = ClModule::singleton();
  module.AddKernel<ARangeKernel, const ARangeOption&, const TensorOption&, Buffer&>("ARange");
  module.AddKernel<LinspaceKernel, const LinspaceOption&, const TensorOption&, Buffer&>("Linspace");
  module.AddKernel<EyeKernel, const EyeOption&, const TensorOption&, Buffer&>("Eye");
};

}  // namespace cl
}  // namespace nerva
