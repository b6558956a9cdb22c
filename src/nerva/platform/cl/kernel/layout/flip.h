#pragma once

#include <memory>

#include "nerva/kernel/base.h"
#include "nerva/kernel/nn.h"
#include "nerva/platform/cl/kernel/layout/layout_frame.h"

namespace nerva {
namespace cl {

// out = torch.flip(input, dims) ("Flip", flip.cl): the listed dimensions
// (negative ones count from the end, none twice) are reversed.
class FlipKernel : public UnaryMoveKernel {
 public:
  FlipKernel(const FlipOption& option, const TensorOption& input_opt, const Buffer& input,
             const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  FlipOption option_;
};

}  // namespace cl
}  // namespace nerva
