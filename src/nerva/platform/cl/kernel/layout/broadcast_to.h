#pragma once

#include <memory>

#include "nerva/platform/cl/kernel/layout/layout_frame.h"

namespace nerva {
namespace cl {

// out = input.expand(out's sizes) materialised ("BroadcastTo", broadcast_to.cl):
// sizes align from the last dimension; an input dimension of size 1 (or a
// missing leading one) is repeated, every other must equal out's.
class BroadcastToKernel : public UnaryMoveKernel {
 public:
  BroadcastToKernel(const TensorOption& input_opt, const Buffer& input, const TensorOption& out_opt,
                    Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;
};

}  // namespace cl
}  // namespace nerva
