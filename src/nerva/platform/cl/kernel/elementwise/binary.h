#pragma once

#include <memory>
#include <utility>

#include "nerva/kernel/elementwise_option.h"
#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

namespace nerva {
namespace cl {

// out = op(input, other) with broadcasting, PyTorch's semantics ("Binary", binary.cl).
// The inputs promote to a common type by the library's table. add, sub (x -/+ alpha * y,
// alpha converted to the common type for integers), mul, the integer divisions
// (div_trunc, div_floor), remainder (sign of y), fmod (sign of x), pow, maximum and
// minimum (NaN-propagating), fmax and fmin (NaN-ignoring) keep the common type;
// div, atan2, hypot, copysign and xlogy compute integers in float; comparisons and
// the logical operators give bool; bitwise operators take integers and bool, shifts
// integers only (a count outside [0, bits) gives 0 to the left and the sign fill to
// the right). sub, the divisions, remainder, fmod and pow reject bool. An integer
// division or remainder by zero gives 0 (PyTorch raises). The output may be any type
// the result casts to (CanCast).
class BinaryKernel : public ElementwiseKernel {
 public:
  BinaryKernel(const BinaryOption& option, const TensorOption& input_opt, const Buffer& input,
               const TensorOption& other_opt, const Buffer& other, const TensorOption& out_opt,
               Buffer& out);
  BinaryKernel(const BinaryOption& option, const Tensor& input, const Tensor& other,
               const Tensor& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

  // The device name of a code ("ADD", ...); unknown codes throw std::invalid_argument.
  static const char* OpName(BinaryType op);
  // The types the two inputs are converted to, and the result type.
  static std::pair<std::pair<DataType, DataType>, DataType> Types(BinaryType op, DataType a,
                                                                  DataType b);
  // The program, types and definitions of `op` (shared with ForEachBinary).
  static ElementwiseSpec Spec(BinaryType op, DataType a, DataType b);

 private:
  BinaryOption option_;
};

}  // namespace cl
}  // namespace nerva
