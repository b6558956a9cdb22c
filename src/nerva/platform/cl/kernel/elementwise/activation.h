#pragma once

#include <memory>
#include <string>

#include "nerva/kernel/base.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

// The device name of an activation code ("RELU", "GELU", ...).
std::string GetOpCode(int op_type);
// The arithmetic type: float, except RELU and RELU6 on integer input, which
// stay in the input type.
DataType GetConvType(int op_type, DataType input);

// y = activation(x), element-wise on contiguous tensors ("Activation").
class ActivationKernel : public KernelImpl {
 public:
  ActivationKernel(const ActivationOption& option, const Tensor& x, const Tensor& y);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  ActivationOption option_;
  Tensor x_;
  Tensor y_;
};

// The descriptor-and-buffer form ("ActivationV1").
class ActivationKernelV1 : public ActivationKernel {
 public:
  ActivationKernelV1(const ActivationOption& option, const TensorOption& x_opt, const Buffer& x,
                     const TensorOption& y_opt, Buffer& y);
};

}  // namespace cl
}  // namespace nerva
