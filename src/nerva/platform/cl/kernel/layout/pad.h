#pragma once

#include <memory>

#include "nerva/kernel/base.h"
#include "nerva/kernel/nn.h"
#include "nerva/platform/cl/kernel/layout/layout_frame.h"

namespace nerva {
namespace cl {

// out = torch.nn.functional.pad(input, pad, mode, value) ("Pad", pad.cl). pad
// holds (before, after) pairs from the last dimension backwards, at most one
// pair per dimension, and any number of dimensions may be padded in every mode.
// Negative entries crop. Reflect needs each pad below the dimension's size,
// circular at most its size, and replicate, reflect and circular a non-empty
// input dimension wherever they pad. value is converted to the input's type
// (integers truncate toward zero). The interior is one move of the input;
// the border is filled (constant) or moved from the output's own interior
// and already padded slabs, one unit per slab in order.
class PadKernel : public UnaryMoveKernel {
 public:
  PadKernel(const PadOption& option, const TensorOption& input_opt, const Buffer& input,
            const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  // Every output element from the per-element mapping of pad.cl (for
  // crops in the modes other than constant); `before` in tensor order.
  void CompileGeneric(const std::shared_ptr<SessionImpl>& session, const std::vector<long>& before);
  // CPU devices: contiguous tensors padded on their last two dims only, one
  // work item per plane; false where that does not apply.
  bool CompileRows(const std::shared_ptr<SessionImpl>& session, const std::vector<long>& before,
                   const std::vector<long>& after, bool cropped);

  // GPUs: one PadFlat launch, a work item per output element in row-major
  // order (unpadded outer dims merged); `before` in tensor order.
  void CompileFlat(const std::shared_ptr<SessionImpl>& session, const std::vector<long>& before);

  PadOption option_;
};

}  // namespace cl
}  // namespace nerva
