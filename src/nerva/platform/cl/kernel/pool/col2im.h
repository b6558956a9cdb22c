#pragma once

#include <memory>

#include "nerva/kernel/pool_option.h"
#include "nerva/platform/cl/kernel/pool/pool_frame.h"

namespace nerva {
namespace cl {

// torch fold ("Col2im", program "col2im.cl"): (N, C * kh * kw, L) or
// (C * kh * kw, L) float or half columns summed into an (N, C, H, W) or
// (C, H, W) image of output_size, the inverse placement of Im2col. Each image
// element gathers the entries of the blocks that cover it in (i, j) order, so
// overlapping blocks add up deterministically. The output is contiguous.
class Col2imKernel : public KernelImpl {
 public:
  Col2imKernel(const Col2imOption& option, const TensorOption& input_opt, const Buffer& input,
               const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  PoolGeometry Geometry() const;

  Col2imOption option_;
  Tensor input_, output_;
};

}  // namespace cl
}  // namespace nerva
