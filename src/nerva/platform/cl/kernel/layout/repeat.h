#pragma once

#include <memory>

#include "nerva/kernel/base.h"
#include "nerva/platform/cl/kernel/layout/layout_frame.h"

namespace nerva {
namespace cl {

// out = input.repeat(repeats) ("Repeat", repeat.cl): repeats has at least one
// entry per input dimension, each at least 0; missing leading input
// dimensions count as 1, and out's sizes are repeats[i] times those.
class RepeatKernel : public UnaryMoveKernel {
 public:
  RepeatKernel(const RepeatOption& option, const TensorOption& input_opt, const Buffer& input,
               const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  RepeatOption option_;
};

// out = torch.repeat_interleave(input, repeats, dim) ("Repeat_Interleave",
// repeat.cl). `repeats` (int32 or int64) has one entry, used for every position
// (a scalar repeat), or one per position along dim; `repeats_cumsum` has the
// same shape and holds its inclusive running sum. out has input's sizes except
// along dim, where the caller gives the total (the last running sum; for a
// scalar repeat r, r times the input's size). Device values that disagree with
// the output size are not detected: each output position then still reads an
// input position inside the input.
class RepeatInterleaveKernel : public LayoutKernel {
 public:
  RepeatInterleaveKernel(const RepeatOption& option, const TensorOption& input_opt,
                         const Buffer& input, const TensorOption& repeats_opt,
                         const Buffer& repeats, const TensorOption& cumsum_opt,
                         const Buffer& cumsum, const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  RepeatOption option_;
  Tensor input_, repeats_, cumsum_, out_;
};

}  // namespace cl
}  // namespace nerva
