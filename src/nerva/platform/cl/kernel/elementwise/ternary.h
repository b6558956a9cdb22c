#pragma once

#include <memory>

#include "nerva/kernel/elementwise_option.h"
#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

namespace nerva {
namespace cl {

// torch.addcmul / addcdiv / lerp with broadcasting ("Ternary", ternary.cl): input,
// tensor1 and tensor2 promote to one type. addcmul takes integers (value truncated
// toward zero); addcdiv and lerp need floating point (lerp's tensor2 is the weight).
class TernaryKernel : public ElementwiseKernel {
 public:
  TernaryKernel(const TernaryOption& option, const TensorOption& input_opt, const Buffer& input,
                const TensorOption& tensor1_opt, const Buffer& tensor1,
                const TensorOption& tensor2_opt, const Buffer& tensor2, const TensorOption& out_opt,
                Buffer& out);
  TernaryKernel(const TernaryOption& option, const Tensor& input, const Tensor& tensor1,
                const Tensor& tensor2, const Tensor& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

  // The device name of a code ("ADDCMUL", ...); unknown codes throw std::invalid_argument.
  static const char* OpName(TernaryType op);
  // The promoted type, checked against what the operator accepts.
  static DataType Types(TernaryType op, DataType input, DataType tensor1, DataType tensor2);
  // The program, types and definitions of `op` (shared with ForEachTernary).
  static ElementwiseSpec Spec(TernaryType op, DataType input, DataType tensor1, DataType tensor2);

 private:
  TernaryOption option_;
};

}  // namespace cl
}  // namespace nerva
