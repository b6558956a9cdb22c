#include "nerva/platform/cl/kernel/pool/resize.h"

#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

const char* ModeName(InterpolateMode mode) {
  switch (mode) {
    case InterpolateMode::kNearest:
      return "nearest";
    case InterpolateMode::kNearestExact:
      return "nearest-exact";
    case InterpolateMode::kLinear:
      return "linear";
    case InterpolateMode::kBilinear:
      return "bilinear";
    case InterpolateMode::kBicubic:
      return "bicubic";
    case InterpolateMode::kTrilinear:
      return "trilinear";
    case InterpolateMode::kArea:
      return "area";
  }
  return "unknown";
}

// The input rank a mode needs, 0 for any of 3, 4 and 5.
int ModeRank(InterpolateMode mode) {
  switch (mode) {
    case InterpolateMode::kLinear:
      return 3;
    case InterpolateMode::kBilinear:
    case InterpolateMode::kBicubic:
      return 4;
    case InterpolateMode::kTrilinear:
      return 5;
    default:
      return 0;
  }
}

bool Interpolating(InterpolateMode mode) {
  return mode == InterpolateMode::kLinear || mode == InterpolateMode::kBilinear ||
         mode == InterpolateMode::kBicubic || mode == InterpolateMode::kTrilinear;
}

}  // namespace

ResizeKernel::ResizeKernel(const ResizeOption& option, const TensorOption& input_opt,
                           const Buffer& input, const TensorOption& out_opt, Buffer& out)
    : KernelImpl("Resize"),
      option_(option),
      input_(input_opt, input, 0),
      output_(out_opt, out, 0) {}

bool ResizeKernel::Verify() const {
  CheckDefined(name(), "input", input_);
  CheckDefined(name(), "output", output_);
  const int mode = static_cast<int>(option_.mode);
  if (mode < 0 || mode > static_cast<int>(InterpolateMode::kArea)) {
    throw std::invalid_argument(StrCat(name(), ": unknown interpolation mode ", mode));
  }
  const std::vector<long>& in = input_.shape().sizes();
  const int rank = static_cast<int>(in.size());
  if (rank < 3 || rank > 5) {
    throw std::runtime_error(StrCat(name(),
                                    ": Input Error: Only 3D, 4D and 5D input Tensors "
                                    "supported (got ",
                                    rank,
                                    "D) for the modes: nearest | linear | "
                                    "bilinear | bicubic | trilinear | area | nearest-exact (got ",
                                    ModeName(option_.mode), ")"));
  }
  const int need = ModeRank(option_.mode);
  if (need != 0 && need != rank) {
    throw std::runtime_error(StrCat(name(), ": Got ", rank, "D input, but ", ModeName(option_.mode),
                                    " mode needs ", need, "D input"));
  }
  if (option_.align_corners && !Interpolating(option_.mode)) {
    throw std::invalid_argument(StrCat(name(),
                                       ": align_corners option can only be set with the "
                                       "interpolating modes: linear | bilinear | bicubic | "
                                       "trilinear"));
  }
  const size_t n = option_.scale_factor.size();
  if (n != 0 && n != 1 && n != static_cast<size_t>(rank - 2)) {
    throw std::invalid_argument(StrCat(name(),
                                       ": scale_factor shape must match input shape. Input is ",
                                       rank - 2, "D, scale_factor size is ", n));
  }
  for (double s : option_.scale_factor) {
    if (!(s >= 0)) {
      throw std::invalid_argument(StrCat(name(), ": scale_factor must be non-negative, got ", s));
    }
  }
  const std::vector<long>& out = output_.shape().sizes();
  MakeAdaptiveGeometry(name(), in, "output", out, rank - 2);
  for (int i = 2; i < rank; ++i) {
    if (in[i] <= 0 || out[i] <= 0) {
      throw std::runtime_error(StrCat(name(), ": Input and output sizes should be greater than 0, ",
                                      "but got input ", input_.shape(), " output ",
                                      output_.shape()));
    }
  }
  CheckPoolType(name(), "input", input_);
  CheckPoolOutput(name(), "output", output_, out, input_.dtype());
  return true;
}

float ResizeKernel::Scale(const PoolDim& dim, int i, int spatial) const {
  const auto& f = option_.scale_factor;
  const double factor = f.empty() ? 0.0 : f.size() == 1 ? f[0] : f[i];
  const InterpolateMode mode = option_.mode;
  if (i < 0 || spatial == 0) return 1.0f;
  if (mode == InterpolateMode::kNearest) return NearestScale(dim.in, dim.out, factor);
  if (option_.align_corners && Interpolating(mode)) {
    return dim.out > 1 ? static_cast<float>(dim.in - 1) / static_cast<float>(dim.out - 1) : 0.0f;
  }
  return factor > 0 ? static_cast<float>(1.0 / factor)
                    : static_cast<float>(dim.in) / static_cast<float>(dim.out);
}

void ResizeKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const int spatial = static_cast<int>(input_.shape().sizes().size()) - 2;
  const PoolGeometry g = MakeAdaptiveGeometry(name(), input_.shape().sizes(), "output",
                                              output_.shape().sizes(), spatial);
  if (g.OutCount() == 0) return;
  input_ = MakeContiguous(*this, session, input_);
  FloatVector4 scale{};
  for (int j = 0; j < 3; ++j) {
    const int i = j - (3 - spatial);  // index into the spatial dimensions; < 0 for unused ones
    scale.value.s[j] = i < 0 ? 1.0f : Scale(g.dim[j], i, spatial);
  }
  const int mode = static_cast<int>(option_.mode);
  // CPU devices: (bi)linear doubling of the width in whole rows.
  const bool doubling =
      session->host_cpu() && !option_.align_corners &&
      (option_.mode == InterpolateMode::kLinear || option_.mode == InterpolateMode::kBilinear) &&
      g.dim[2].out == 2 * g.dim[2].in && g.dim[2].in >= 18 && scale.value.s[2] == 0.5f;
  if (spatial <= 2 && mode <= static_cast<int>(InterpolateMode::kBilinear)) {
    auto unit = doubling ? MakeRowUnit(*this, session, "resize.cl", "resize_wide_rows",
                                       PoolBuildOption(input_.dtype()), g.planes, g.dim[1].out)
                         : MakeRowBlockUnit(*this, session, "resize.cl", "resize_rows",
                                            PoolBuildOption(input_.dtype()), g.planes, g.dim[1].out,
                                            g.dim[2].out);
    unit->SetArg(FlatView(input_)).SetArg(FlatView(output_));
    BindRowGeometry(*unit, g, false);
    unit->SetArg(scale.value.s[1])
        .SetArg(scale.value.s[2])
        .SetArg(mode)
        .SetArg(static_cast<int>(option_.align_corners));
    return;
  }
  auto unit = MakePoolUnit(*this, session, "resize.cl", "resize", PoolBuildOption(input_.dtype()),
                           g, false);
  unit->SetArg(FlatView(input_)).SetArg(FlatView(output_));
  BindSizes(*unit, g);
  unit->SetArg(scale)
      .SetArg(static_cast<int>(option_.mode))
      .SetArg(static_cast<int>(option_.align_corners));
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<ResizeKernel, const ResizeOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("Resize");
};

}  // namespace cl
}  // namespace nerva
