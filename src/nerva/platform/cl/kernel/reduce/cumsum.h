#pragma once

#include <memory>

#include "nerva/kernel/reduce_option.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

// torch.cumsum(input, dim) ("Cumsum"): floating inputs accumulate in float,
// integer and bool inputs in int64; the result takes the caller's output type.
// The innermost axis runs the tiled group scan ("cumsum_x"), any other axis
// one item per column ("cumsum", in place when output and input share memory).
class CumsumKernel : public KernelImpl {
 public:
  CumsumKernel(const CumsumOption& option, const TensorOption& input, const Buffer& input_buf,
               const TensorOption& output, Buffer& output_buf);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  CumsumOption option_;
  Tensor input_;
  Tensor output_;
};

}  // namespace cl
}  // namespace nerva
