#pragma once

// Front-ends of the gradient operators (the losses are in loss.h, included here). Each Create
// forwards its arguments, unchanged, to the queue's platform under the operator's registry name.

#include <cstdint>
#include <memory>
#include <vector>

#include "nerva/buffer.h"
#include "nerva/kernel.h"
#include "nerva/queue.h"
#include "nerva/tensor_option.h"

#include "nerva/kernel/loss.h"
#include "nerva/kernel/pool_option.h"
#include "nerva/kernel/train_option.h"

namespace nerva {

// Gradient of AdaptiveAvgPool2D.
class AdaptiveAvgPool2DBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of AdaptiveAvgPool3D.
class AdaptiveAvgPool3DBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of AvgPool2D.
class AvgPool2DBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const AvgPool2DBackwardOption& option, const TensorOption& grad_output_opt,
                       const Buffer& grad_output, const TensorOption& grad_input_opt,
                       Buffer& grad_input);
};

// Gradient of AvgPool3D.
class AvgPool3DBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const AvgPool3DBackwardOption& option, const TensorOption& grad_output_opt,
                       const Buffer& grad_output, const TensorOption& grad_input_opt,
                       Buffer& grad_input);
};

// Gradient of batch normalisation (inference statistics, or the saved batch statistics when
// training).
class BatchNormBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const BatchNormBackwardOption& option, const TensorOption& grad_output_opt,
                       const Buffer& grad_output, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& running_mean_opt, const Buffer& running_mean,
                       const TensorOption& running_var_opt, const Buffer& running_var,
                       const TensorOption& save_mean_opt, const Buffer& save_mean,
                       const TensorOption& save_rstd_opt, const Buffer& save_rstd,
                       const TensorOption& grad_input_opt, Buffer& grad_input,
                       const TensorOption& grad_weight_opt, Buffer& grad_weight,
                       const TensorOption& grad_bias_opt, Buffer& grad_bias);
};

// Gradient of ELU (torch elu_backward).
class ELUBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const ELUBackwardOption& option,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& self_or_result_opt, const Buffer& self_or_result,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of the exact (erf) GELU.
class GeLUBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of torch.nn.functional.glu.
class GLUBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const GLUBackwardOption& option,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of GroupNorm from the saved mean and rstd; weight may be empty.
class GroupNormBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const GroupNormBackwardOption& option, const TensorOption& grad_output_opt,
                       const Buffer& grad_output, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& mean_opt, const Buffer& mean,
                       const TensorOption& rstd_opt, const Buffer& rstd,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& grad_input_opt, Buffer& grad_input,
                       const TensorOption& grad_weight_opt, Buffer& grad_weight,
                       const TensorOption& grad_bias_opt, Buffer& grad_bias);
};

// Gradient of the hard sigmoid clamp(alpha * x + beta, 0, 1).
class HardSigmoidBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const HardSigmoidBackwardOption& option, const TensorOption& grad_output_opt,
                       const Buffer& grad_output, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of hardswish.
class HardSwishBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of hardtanh.
class HardTanHBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const HardTanHBackwardOption& option, const TensorOption& grad_output_opt,
                       const Buffer& grad_output, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of LayerNorm from the saved mean and rstd; weight and bias may be empty.
class LayerNormBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const LayerNormBackwardOption& option, const TensorOption& grad_output_opt,
                       const Buffer& grad_output, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& mean_opt, const Buffer& mean,
                       const TensorOption& rstd_opt, const Buffer& rstd,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& bias_opt, const Buffer& bias,
                       const TensorOption& grad_input_opt, Buffer& grad_input,
                       const TensorOption& grad_weight_opt, Buffer& grad_weight,
                       const TensorOption& grad_bias_opt, Buffer& grad_bias);
};

// Gradient of leaky_relu.
class LeakyReluBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const LeakyReluBackwardOption& option, const TensorOption& grad_output_opt,
                       const Buffer& grad_output, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of Logit.
class LogitBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const LogitBackwardOption& option,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of logsigmoid.
class LogSigmoidBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of LogSoftmax from its output.
class LogSoftmaxBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const LogSoftmaxBackwardOption& option, const TensorOption& grad_output_opt,
                       const Buffer& grad_output, const TensorOption& output_opt,
                       const Buffer& output, const TensorOption& grad_input_opt,
                       Buffer& grad_input);
};

// Gradient of MaxPool2D from the saved indices.
class MaxPool2DWithIndicesBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const MaxPool2DWithIndicesBackwardOption& option,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& indices_opt, const Buffer& indices,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of MaxPool3D from the saved indices.
class MaxPool3DWithIndicesBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const MaxPool3DWithIndicesBackwardOption& option,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& indices_opt, const Buffer& indices,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of mish.
class MishBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of Threshold: grad where input > threshold, else 0.
class ThresholdBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const ThresholdBackwardOption& option, const TensorOption& grad_output_opt,
                       const Buffer& grad_output, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of relu.
class ReLUBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of sigmoid from its output.
class SigmoidBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& output_opt, const Buffer& output,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of silu.
class SiluBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of select: grad_output placed at index along dim, zeros elsewhere.
class SelectBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const SelectBackwardOption& option,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of a slice: grad_output placed in the slice, zeros elsewhere.
class SliceBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const SliceBackwardOption& option,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of Softmax from its output.
class SoftmaxBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const SoftmaxBackwardOption& option, const TensorOption& grad_output_opt,
                       const Buffer& grad_output, const TensorOption& output_opt,
                       const Buffer& output, const TensorOption& grad_input_opt,
                       Buffer& grad_input);
};

// Gradient of the squared relu (x >= 0 ? x * x : 0).
class SReLUBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of swish x * sigmoid(alpha * x).
class SwishBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const SwishBackwardOption& option,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of tanh from its output.
class TanHBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& output_opt, const Buffer& output,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

// Gradient of 2-D nearest upsampling.
class UpsampleNearest2dBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const UpsampleNearest2dBackwardOption& option,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

}  // namespace nerva
