#include "nerva/platform/cl/kernel/tensorcore/tc_frame.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

#include "nerva/platform/cl/session_impl.h"

namespace nerva {
namespace cl {

void RequireTensorCore(const SessionImpl& session, const std::string& op) {
  if (!session.dev_supports_extension(kTensorCoreExtension)) {
    throw std::runtime_error(op + ": the device lacks the " + kTensorCoreExtension + " extension");
  }
}

BuildOption TensorCoreBuildOption(const SessionImpl& session, int block_size) {
  BuildOption options;
  options.AddOption("-cl-nrv-inline-all-func ")
      .AddDefinitionAutoType("BLOCK_SIZE", block_size)
      .AddDefinitionAutoType("MAX_LS_SIZE", static_cast<long>(session.available_local_mem()))
      .AddDefinitionAutoType("LS_ALIGN_SIZE", kTcLocalAlign)
      .AddDefinitionAutoType("VEC_SIZE", 4);
  return options;
}

int32_t TcRound(double value) {
  if (std::isnan(value)) return 0;
  const double lo = std::numeric_limits<int32_t>::min();
  const double hi = std::numeric_limits<int32_t>::max();
  return static_cast<int32_t>(std::clamp(std::nearbyint(value), lo, hi));
}

int32_t TcFixedQ16(double value) {
  return TcRound(value * 65536.0);
}

int32_t TcRescaleMultiplier(int shift, float scale) {
  return TcRound(std::ldexp(static_cast<double>(scale), std::clamp(shift, -64, 64)));
}

}  // namespace cl
}  // namespace nerva
