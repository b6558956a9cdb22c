#pragma once

#include "nerva/module.h"

namespace nerva {
namespace cl {

class KernelImpl;

// The OpenCL registry ("CL"): every operator kernel registers its creator here
// from its own file (NERVA_STATIC_REGISTER), plus the "MakeBuffer" allocator.
class ClModule : public Module<KernelImpl> {
 public:
  static ClModule& singleton();

 private:
  ClModule();
};

// Registers the tensor-core coefficient encoders of this platform: none in this release.
void RegisterTCCoefEncoder(ClModule& module);

}  // namespace cl
}  // namespace nerva
