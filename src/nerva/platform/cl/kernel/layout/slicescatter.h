#pragma once

#include <memory>

#include "nerva/kernel/base.h"
#include "nerva/kernel/train.h"
#include "nerva/platform/cl/kernel/layout/layout_frame.h"

namespace nerva {
namespace cl {

// out = torch.slice_scatter(input, src, ...) on the leading dimensions
// ("SliceScatter", slicescatter.cl): out is input with the slice of the option
// (as Slice reads it) replaced by src, whose shape is the slice's. out may be
// input itself (the same view); other overlaps are refused.
class SliceScatterKernel : public LayoutKernel {
 public:
  SliceScatterKernel(const SliceOption& option, const TensorOption& input_opt, const Buffer& input,
                     const TensorOption& src_opt, const Buffer& src, const TensorOption& out_opt,
                     Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  SliceOption option_;
  Tensor input_, src_, out_;
};

// grad_input = zeros with grad_output in the slice dim[start:end:step]
// ("SliceBackward", slicescatter.cl): PyTorch's slice_backward with start and
// end normalised and clamped as Slice does; grad_output has the slice's shape.
class SliceBackwardKernel : public UnaryMoveKernel {
 public:
  SliceBackwardKernel(const SliceBackwardOption& option, const TensorOption& grad_output_opt,
                      const Buffer& grad_output, const TensorOption& grad_input_opt,
                      Buffer& grad_input);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  SliceOption AsSlice() const;  // the option as a slice of the leading dimensions

  SliceBackwardOption option_;
};

// True when `out` may be written from `input`: separate memory, or the same view.
bool SameOrSeparate(const Tensor& input, const Tensor& out);

}  // namespace cl
}  // namespace nerva
