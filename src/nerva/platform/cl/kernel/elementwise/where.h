#pragma once

#include <memory>

#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

namespace nerva {
namespace cl {

// torch.where(condition, input, other) with broadcasting ("Where", where.cl). The
// condition is bool (uint8 is accepted as "nonzero"); input and other promote to
// one type.
class WhereKernel : public ElementwiseKernel {
 public:
  WhereKernel(const TensorOption& condition_opt, const Buffer& condition,
              const TensorOption& input_opt, const Buffer& input, const TensorOption& other_opt,
              const Buffer& other, const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;
};

}  // namespace cl
}  // namespace nerva
