#pragma once

#include <string>
#include <vector>

#include "nerva/kernel/reduce_option.h"
#include "nerva/platform/cl/kernel/reduce/reduce.h"

namespace nerva {
namespace cl {

// torch.linalg.vector_norm(input, ord, dim, keepdim) ("LinalgVectorNorm") on
// float and half inputs: the Reduce variants with the norm's element map and
// finishing ("linalg_vector_norm.cl" ahead of "reduce.cl"). ord 0 counts
// non-zeros, +inf / -inf take the max / min of |x|, any other p gives
// (sum |x|^p)^(1/p). The axes follow Reduce's rule, with its own message.
class LinalgVectorNormKernel : public ReduceKernel {
 public:
  LinalgVectorNormKernel(const LinalgVectorNormOption& option, const TensorOption& input,
                         const Buffer& input_buf, const TensorOption& output, Buffer& output_buf);

  bool Verify() const override;

 protected:
  std::string ProgramName() const override { return "LinalgVectorNorm::norm"; }
  std::vector<std::string> Sources() const override {
    return {"common.h", "reduce.h", "linalg_vector_norm.cl", "reduce.cl"};
  }
  void AddExtraOptions(BuildOption& options) const override;
  const char* AxesMessage() const override {
    return "LinalgVectorNorm only support consecutive axes or axes is [0,2] or [0,2,3]";
  }
  bool GlobalAllowed() const override { return true; }

 private:
  float ord_;
};

}  // namespace cl
}  // namespace nerva
