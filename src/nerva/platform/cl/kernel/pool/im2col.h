#pragma once

#include <memory>
#include <string>

#include "nerva/kernel/pool_option.h"
#include "nerva/platform/cl/kernel/pool/pool_frame.h"

namespace nerva {
namespace cl {

// The sliding-block geometry of im2col / col2im over an image of `image`
// (height, width) sizes, with torch's checks (positive kernel, stride and
// dilation, non-negative padding, at least one block each way). The block
// grid is the geometry's output; `planes` is left 0.
PoolGeometry MakeBlockGeometry(const std::string& op, long height, long width,
                               const std::vector<long>& kernel_size,
                               const std::vector<long>& dilation, const std::vector<long>& padding,
                               const std::vector<long>& stride, bool fold);

// torch unfold ("Im2col", program "im2col.cl"): an (N, C, H, W) or (C, H, W)
// float or half input to (N, C * kh * kw, L) or (C * kh * kw, L) columns,
// L = blocks down x blocks across; row (c * kh + i) * kw + j, column
// bh * blocks_across + bw holds input (c, bh * sh - ph + i * dh,
// bw * sw - pw + j * dw), zero in the padding. The output is contiguous.
class Im2colKernel : public KernelImpl {
 public:
  Im2colKernel(const Im2colOption& option, const TensorOption& input_opt, const Buffer& input,
               const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  PoolGeometry Geometry() const;
  std::vector<long> OutputSizes(const PoolGeometry& g) const;

  Im2colOption option_;
  Tensor input_, output_;
};

}  // namespace cl
}  // namespace nerva
