#pragma once

#include <memory>

#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

namespace nerva {
namespace cl {

// torch.clamp(input, min, max) with broadcasting tensor bounds ("Clamp", clamp.cl).
// Either bound may be left out (an empty TensorOption and a null Buffer), not both.
// All present tensors promote to one type; a lower bound above the upper gives the
// upper; NaN in the input or a bound gives NaN.
class ClampKernel : public ElementwiseKernel {
 public:
  ClampKernel(const TensorOption& input_opt, const Buffer& input, const TensorOption& min_opt,
              const Buffer& min, const TensorOption& max_opt, const Buffer& max,
              const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  DataType ResultType() const;
  bool has_min_;
  bool has_max_;
};

}  // namespace cl
}  // namespace nerva
