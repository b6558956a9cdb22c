#include "nerva/platform/cl/kernel/elementwise/clamp.h"

#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {
bool Present(const TensorOption& opt, const Buffer& buffer) {
  return !opt.shape.empty() || static_cast<bool>(buffer);
}
// A left-out bound is replaced by the input itself (and ignored on the device).
Tensor BoundOrInput(const TensorOption& opt, const Buffer& buffer, const TensorOption& input_opt,
                    const Buffer& input) {
  return Present(opt, buffer) ? MakeTensor(opt, buffer) : MakeTensor(input_opt, input);
}
}  // namespace

ClampKernel::ClampKernel(const TensorOption& input_opt, const Buffer& input,
                         const TensorOption& min_opt, const Buffer& min,
                         const TensorOption& max_opt, const Buffer& max,
                         const TensorOption& out_opt, Buffer& out)
    : ElementwiseKernel("Clamp",
                        {MakeTensor(input_opt, input), BoundOrInput(min_opt, min, input_opt, input),
                         BoundOrInput(max_opt, max, input_opt, input)},
                        MakeTensor(out_opt, out), {"input", "min", "max"}),
      has_min_(Present(min_opt, min)),
      has_max_(Present(max_opt, max)) {}

DataType ClampKernel::ResultType() const {
  std::vector<DataType> types = {input_type(0)};
  if (has_min_) types.push_back(input_type(1));
  if (has_max_) types.push_back(input_type(2));
  return PromoteTypes(types);
}

bool ClampKernel::Verify() const {
  if (!has_min_ && !has_max_) {
    throw std::invalid_argument("Clamp: at least one of min and max must be given");
  }
  VerifyShapes();
  VerifyOutputType(ResultType());
  return true;
}

void ClampKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const DataType t = ResultType();
  ElementwiseSpec spec{"clamp.cl", {t, t, t}, t, BuildOption(), false};
  spec.options.AddDefinitionAutoType("HAS_MIN", has_min_)
      .AddDefinitionAutoType("HAS_MAX", has_max_);
  CompileElementwise(session, spec, [](KernelUnit&) {});
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<ClampKernel, const TensorOption&, const Buffer&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&, const TensorOption&, Buffer&>(
          "Clamp");
};

}  // namespace cl
}  // namespace nerva
