#pragma once

// The activation gradients: grad_input = f'(saved) * grad_output element by element, with
// `saved` the forward's input (or its output, for the gradients that PyTorch computes from
// the result). One kernel class serves them all; each operator is a device program
// "<name>_backward.cl" and one registration in activation_backward.cc, which turns the
// operator's option record into the program's scalar arguments.
//
// Inputs broadcast together (any strides); grad_input must have the broadcast shape and a
// type that the promoted input type may be written into (PyTorch's out= rule); it may be
// grad_output itself (in place). Floating-point types only, except where noted; half
// tensors compute in float. Empty tensors give a kernel with no work. Bounds compared with the
// saved tensor (thresholds, clamp limits, logit eps) are first rounded to the computation type, as
// PyTorch does.
//
//   ReLUBackward        (input)   input <= 0 ? 0 : g; integer types too
//   SigmoidBackward     (output)  g * (1 - y) * y
//   SiluBackward        (input)   g * s * (1 + x * (1 - s)), s = sigmoid(x)
//   TanHBackward        (output)  g * (1 - y * y)
//   GeLUBackward        (input)   g * (Phi(x) + x * phi(x)), the exact (erf) GELU
//   ELUBackward         (self_or_result) torch elu_backward(alpha, scale, input_scale,
//                       is_result); is_result with a negative alpha is rejected
//   HardSigmoidBackward (input)   g * alpha where 0 < alpha * x + beta < 1, else 0
//   HardSwishBackward   (input)   x < -3 ? 0 : x <= 3 ? g * (x / 3 + 1/2) : g
//   HardTanHBackward    (input)   x <= min_val || x >= max_val ? 0 : g
//   LeakyReluBackward   (input)   x > 0 ? g : g * negative_slope; self_is_result with a
//                       negative slope is rejected
//   LogSigmoidBackward  (input)   g * sigmoid(-x), from e^-|x| so that large |x| is exact
//   LogitBackward       (input)   g / (x (1 - x)); outside [0, 1] NaN, or with eps >= 0
//                       outside [eps, 1 - eps] 0; at 0 and 1 g * infinity
//   MishBackward        (input)   g * (t + x * s * (1 - t * t)), t = tanh(softplus(x))
//   SReLUBackward       (input)   x >= 0 ? 2 * x * g : 0
//   SwishBackward       (input)   g * s * (1 + alpha * x * (1 - s)), s = sigmoid(alpha * x)
//   ThresholdBackward   (input)   input <= threshold ? 0 : g; integer types too (the
//                       threshold truncated toward zero)
// NaN inputs propagate as in PyTorch: the comparisons above are written in its order.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

namespace nerva {
namespace cl {

// One gradient operator: what the kernel class needs besides the tensors.
struct GradientDef {
  std::string name;     // registry and device kernel name, "ReLUBackward"
  std::string program;  // device program, "relu_backward.cl"
  std::string saved;    // the second input's name in messages: "input", "output", ...
  bool integers;        // also defined for integer types (not bool)
  bool op16 = false;    // the program also defines EW_OP16 (see elementwise.h)
};

// The program's scalar arguments (its EW_PARAMS), bound after the tensors. `type` is the
// type the program computes in, for rounding bounds to it.
using GradientBinder = std::function<void(KernelUnit& unit, DataType type)>;

class ActivationBackwardKernel : public ElementwiseKernel {
 public:
  ActivationBackwardKernel(GradientDef def, GradientBinder bind,
                           const TensorOption& grad_output_opt, const Buffer& grad_output,
                           const TensorOption& saved_opt, const Buffer& saved,
                           const TensorOption& grad_input_opt, Buffer& grad_input);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

  // The type a gradient computes in for these input types (their promotion); throws
  // std::invalid_argument when the operator is not defined for them.
  DataType ComputeType() const;

 private:
  GradientDef def_;
  GradientBinder bind_;
};

// `value` as an element of `type` would hold it, widened to float (half and bfloat16
// round to nearest even, integer types truncate toward zero).
float RoundToType(double value, DataType type);

}  // namespace cl
}  // namespace nerva
