#pragma once

#include <memory>

#include "nerva/kernel/base.h"
#include "nerva/kernel/nn.h"
#include "nerva/platform/cl/kernel/layout/layout_frame.h"

namespace nerva {
namespace cl {

// out = torch.roll(input, shifts, dims) ("Roll", roll.cl): each listed dimension
// is rolled by its shift (negative shifts roll backwards; a dimension listed
// twice rolls by the sum). With dims empty, shifts has one entry and the
// row-major flattening of the input is rolled.
class RollKernel : public UnaryMoveKernel {
 public:
  RollKernel(const RollOption& option, const TensorOption& input_opt, const Buffer& input,
             const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  RollOption option_;
};

}  // namespace cl
}  // namespace nerva
