#pragma once

#include <memory>
#include <string>

#include "nerva/kernel/reduce_option.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

// torch.softmax(input, dim) ("Softmax"), computed in float. The innermost
// axis runs one group per row ("softmax_x", or "softmax_x_online" for rows of
// 4096 or more whole vectors); any other axis one item per vector of inner
// columns ("softmax").
class SoftmaxKernel : public KernelImpl {
 public:
  SoftmaxKernel(const SoftmaxOption& option, const TensorOption& input, const Buffer& input_buf,
                const TensorOption& output, Buffer& output_buf);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 protected:
  // The same passes with another finishing: its kernel-name stem and the
  // program listed ahead of "softmax.cl" ("" for none).
  SoftmaxKernel(std::string name, std::string prefix, std::string program, int dim,
                const Tensor& input, const Tensor& output);

 private:
  std::string prefix_;
  std::string program_;
  int dim_;
  Tensor input_;
  Tensor output_;
};

}  // namespace cl
}  // namespace nerva
