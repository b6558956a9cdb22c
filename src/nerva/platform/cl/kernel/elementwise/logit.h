#pragma once

#include <memory>

#include "nerva/kernel/elementwise_option.h"
#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

namespace nerva {
namespace cl {

// torch.logit(input, eps) ("Logit", logit.cl): log(z / (1 - z)) with z the input, or
// the input clamped to [eps, 1 - eps] when eps is not negative. Integer and bool
// inputs compute and return float.
class LogitKernel : public ElementwiseKernel {
 public:
  LogitKernel(const LogitOption& option, const TensorOption& input_opt, const Buffer& input,
              const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  LogitOption option_;
};

}  // namespace cl
}  // namespace nerva
