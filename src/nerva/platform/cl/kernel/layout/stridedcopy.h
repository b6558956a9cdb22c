#pragma once

#include <memory>

#include "nerva/kernel/base.h"
#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

namespace nerva {
namespace cl {

// dst = src converted to dst's type ("StridedCopy", stridedcopy.cl; the Copy
// front-end, PyTorch's dst.copy_(src)): both are any strided view whose first
// element lies src_offset / dst_offset elements into its buffer (offsets at
// least 0, the view inside the buffer); src broadcasts to dst's shape.
// Conversions as the Cast operator. dst may be src itself (the same view).
class StridedCopyKernel : public ElementwiseKernel {
 public:
  StridedCopyKernel(const CopyOption& option, const TensorOption& src_opt, const Buffer& src,
                    const TensorOption& dst_opt, Buffer& dst);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  CopyOption option_;
};

}  // namespace cl
}  // namespace nerva
