#pragma once

#include <memory>

#include "nerva/kernel/base.h"
#include "nerva/kernel/nn.h"
#include "nerva/platform/cl/kernel/layout/layout_frame.h"

namespace nerva {
namespace cl {

// out = torch.nn.functional.pixel_unshuffle(input, block_size) ("SpaceToDepth",
// space2depth.cl): (*, C, H * r, W * r) to (*, C * r * r, H, W), the inverse
// of DepthToSpace.
class SpaceToDepthKernel : public UnaryMoveKernel {
 public:
  SpaceToDepthKernel(const SpaceToDepthOption& option, const TensorOption& input_opt,
                     const Buffer& input, const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  SpaceToDepthOption option_;
};

}  // namespace cl
}  // namespace nerva
