#include "nerva/platform/cl/kernel/pool/adaptive_avgpool2d.h"

#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"

namespace nerva {
namespace cl {

namespace {
// The GPU programs for a 1 x 1 output: groups of kGroup items, staging
// kStagePlanes planes of at most kStagedPlane elements (AVG_* of the program).
constexpr size_t kGroup = 256;
constexpr long kStagePlanes = 64, kStagedPlane = 128;
}  // namespace

AdaptiveAvgPoolKernel::AdaptiveAvgPoolKernel(std::string name, int spatial, Tensor input,
                                             Tensor output)
    : KernelImpl(std::move(name)),
      spatial_(spatial),
      input_(std::move(input)),
      output_(std::move(output)) {}

bool AdaptiveAvgPoolKernel::Verify() const {
  CheckPlanes(name(), "input", input_, spatial_);
  CheckDefined(name(), "output", output_);
  const std::vector<long>& out = output_.shape().sizes();
  MakeAdaptiveGeometry(name(), input_.shape().sizes(), "output", out, spatial_);
  CheckPoolOutput(name(), "output", output_, out, input_.dtype());
  return true;
}

void AdaptiveAvgPoolKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const PoolGeometry g = MakeAdaptiveGeometry(name(), input_.shape().sizes(), "output",
                                              output_.shape().sizes(), spatial_);
  if (g.OutCount() == 0) return;
  input_ = MakeContiguous(*this, session, input_);
  const bool one = g.dim[0].out * g.dim[1].out * g.dim[2].out == 1;
  if (one && session->host_cpu()) {
    const long n = g.dim[0].in * g.dim[1].in * g.dim[2].in;
    auto unit =
        MakeSubKernel(session, "Pool::adaptive_avgpool2d.cl", PoolSources("adaptive_avgpool2d.cl"),
                      PoolBuildOption(input_.dtype()), "adaptive_avgpool_planes");
    unit->SetArg(FlatView(input_))
        .SetArg(FlatView(output_))
        .SetArg(static_cast<int>(n))
        .SetArg(static_cast<int>(g.planes));
    unit->SetGlobal({static_cast<size_t>(g.planes)}).SetLocal({64});
    return;
  }
  if (one && !session->host_cpu()) {
    const long n = g.dim[0].in * g.dim[1].in * g.dim[2].in;
    const bool staged = n <= kStagedPlane;
    auto unit =
        MakeSubKernel(session, "Pool::adaptive_avgpool2d.cl", PoolSources("adaptive_avgpool2d.cl"),
                      PoolBuildOption(input_.dtype()),
                      staged ? "adaptive_avgpool_planes_items" : "adaptive_avgpool_plane_group");
    unit->SetArg(FlatView(input_))
        .SetArg(FlatView(output_))
        .SetArg(static_cast<int>(n))
        .SetArg(static_cast<int>(g.planes))
        .SetArg(
            LocalMemory{sizeof(float) * static_cast<size_t>(staged ? kStagePlanes * n : kGroup)});
    const size_t groups =
        static_cast<size_t>(staged ? (g.planes + kStagePlanes - 1) / kStagePlanes : g.planes);
    unit->SetGlobal({groups * kGroup}).SetLocal({kGroup});
    return;
  }
  const std::string program = spatial_ == 2 ? "adaptive_avgpool2d" : "adaptive_avgpool3d";
  auto unit = MakePoolUnit(*this, session, program + ".cl", program,
                           PoolBuildOption(input_.dtype()), g, false);
  unit->SetArg(FlatView(input_)).SetArg(FlatView(output_));
  BindSizes(*unit, g);
}

AdaptiveAvgPool2DKernel::AdaptiveAvgPool2DKernel(const TensorOption& input_opt, const Buffer& input,
                                                 const TensorOption& out_opt, Buffer& out)
    : AdaptiveAvgPoolKernel("AdaptiveAvgPool2D", 2, Tensor(input_opt, input, 0),
                            Tensor(out_opt, out, 0)) {}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<AdaptiveAvgPool2DKernel, const TensorOption&, const Buffer&, const TensorOption&,
                 Buffer&>("AdaptiveAvgPool2D");
};

}  // namespace cl
}  // namespace nerva
