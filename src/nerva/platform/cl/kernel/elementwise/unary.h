#pragma once

#include <memory>

#include "nerva/kernel/elementwise_option.h"
#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

namespace nerva {
namespace cl {

// out = op(input) element-wise, PyTorch's semantics ("Unary", unary.cl).
// Types: the functions of floating point (exp, log, trigonometry, erf, lgamma,
// sqrt, reciprocal, ...) take integer and bool inputs as float and give float;
// abs, neg, ceil, floor, round (half to even), trunc, sign and square keep the
// input type (abs, neg and square reject bool); frac needs a floating-point
// input; bitwise_not takes integers and bool; logical_not, isnan, isinf and
// isfinite give bool. The output may be any type the result casts to
// (CanCast); a floating-point result stored into an integer output is not
// allowed. exp and exp2 use the library's polynomial exp2 (relative error
// about 1e-7 plus 6e-8 times |x|).
class UnaryKernel : public ElementwiseKernel {
 public:
  UnaryKernel(const UnaryOption& option, const TensorOption& input_opt, const Buffer& input,
              const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

  // The device name of a code ("ABS", "EXP", ...); unknown codes throw std::invalid_argument.
  static const char* OpName(UnaryType op);
  // The type the input is converted to and the type of the result.
  static std::pair<DataType, DataType> Types(UnaryType op, DataType input);
  // The program, types and definitions of `op` on `input` (shared with ForEachUnary).
  static ElementwiseSpec Spec(UnaryType op, DataType input);

 private:
  UnaryOption option_;
};

}  // namespace cl
}  // namespace nerva
