#pragma once

#include <memory>

#include "nerva/kernel/nn.h"
#include "nerva/platform/cl/kernel/pool/pool_frame.h"

namespace nerva {
namespace cl {

// torch interpolate to the output's spatial size ("Resize", program
// "resize.cl") of an (N, C, W), (N, C, H, W) or (N, C, D, H, W) float or half
// input: nearest and nearest-exact (any of the three), linear (3-D input),
// bilinear and bicubic (4-D), trilinear (5-D), area (adaptive average, any).
// scale_factor holds torch's scale factors (output / input, one entry or one
// per spatial dimension; empty or 0 uses the sizes); align_corners only with
// the linear modes and bicubic. Arithmetic in float, as torch does for float.
class ResizeKernel : public KernelImpl {
 public:
  ResizeKernel(const ResizeOption& option, const TensorOption& input_opt, const Buffer& input,
               const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  // The output-to-input coordinate scale of spatial dimension `i` of `spatial`.
  float Scale(const PoolDim& dim, int i, int spatial) const;

  ResizeOption option_;
  Tensor input_, output_;
};

}  // namespace cl
}  // namespace nerva
