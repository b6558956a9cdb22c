#pragma once

#include <memory>

#include "nerva/kernel/base.h"
#include "nerva/kernel/train.h"
#include "nerva/platform/cl/kernel/layout/layout_frame.h"

namespace nerva {
namespace cl {

// The view t.select(dim, index) (dim and index already normalised).
Tensor SelectView(const Tensor& t, int dim, long index);

// out = torch.select_scatter(input, src, dim, index) ("SelectScatter",
// select_scatter.cl): out is input with position index (negative counts from
// the end) along dim replaced by src, whose shape is input's without dim. out
// may be input itself (the same view).
class SelectScatterKernel : public LayoutKernel {
 public:
  SelectScatterKernel(const SelectScatterOption& option, const TensorOption& input_opt,
                      const Buffer& input, const TensorOption& src_opt, const Buffer& src,
                      const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  SelectScatterOption option_;
  Tensor input_, src_, out_;
};

// grad_input = zeros with grad_output at position index along dim
// ("SelectBackward", select_backward.cl); dim and index refer to grad_input,
// negative values counting from the end; grad_output has grad_input's shape
// without dim.
class SelectBackwardKernel : public UnaryMoveKernel {
 public:
  SelectBackwardKernel(const SelectBackwardOption& option, const TensorOption& grad_output_opt,
                       const Buffer& grad_output, const TensorOption& grad_input_opt,
                       Buffer& grad_input);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  SelectBackwardOption option_;
};

}  // namespace cl
}  // namespace nerva
