#pragma once

#include <memory>

#include "nerva/kernel/base.h"
#include "nerva/kernel/nn.h"
#include "nerva/platform/cl/kernel/layout/layout_frame.h"

namespace nerva {
namespace cl {

// out = torch.nn.functional.pixel_shuffle(input, block_size) ("DepthToSpace",
// depth2space.cl): (*, C * r * r, H, W) to (*, C, H * r, W * r) with channel
// c * r * r + i * r + j going to row offset i and column offset j (the CRD
// order, the only one the option offers).
class DepthToSpaceKernel : public UnaryMoveKernel {
 public:
  DepthToSpaceKernel(const DepthToSpaceOption& option, const TensorOption& input_opt,
                     const Buffer& input, const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  DepthToSpaceOption option_;
};

}  // namespace cl
}  // namespace nerva
