#pragma once

// Option records of the gradient and loss operators.

#include <array>
#include <cstdint>
#include <vector>

#include "nerva/kernel/pool_option.h"

namespace nerva {

// How a loss folds its per-element values.
enum class LossReduction : int32_t {
  kNone = 0,  // one value per element
  kMean = 1,  // their mean (the weighted mean for weighted class losses)
  kSum = 2,   // their sum
};

// torch.nn.functional.binary_cross_entropy(reduction).
struct BCELossOption {
  LossReduction reduction = LossReduction::kMean;  // how the loss is folded
};

// torch.nn.functional.binary_cross_entropy_with_logits(reduction).
struct BCEWithLogitsLossOption {
  LossReduction reduction = LossReduction::kMean;  // how the loss is folded
};

// Gradient of binary_cross_entropy.
struct BinaryCrossEntropyBackwardOption {
  LossReduction reduction = LossReduction::kMean;  // the forward's reduction
};

// torch.nn.functional.cross_entropy(weight, ignore_index, reduction, label_smoothing).
struct CrossEntropyLossOption {
  LossReduction reduction = LossReduction::kMean;  // how the loss is folded
  long ignore_index = -100;                        // targets of this class contribute nothing
  float label_smoothing = 0.0f;                    // amount of smoothing, in [0, 1]
};

// torch.nn.functional.ctc_loss(blank, reduction, zero_infinity).
struct CTCLossOption {
  long blank = 0;                                  // the blank label
  LossReduction reduction = LossReduction::kMean;  // kMean divides by the target lengths
  bool zero_infinity = false;  // infinite losses (and their gradients) become zero
};

// Gradient of ctc_loss, with the forward's settings.
struct CTCLossBackwardOption : CTCLossOption {};

// torch.nn.functional.l1_loss(reduction).
struct L1LossOption {
  LossReduction reduction = LossReduction::kMean;  // how the loss is folded
};

// torch.nn.functional.mse_loss(reduction).
struct MseLossOption {
  LossReduction reduction = LossReduction::kMean;  // how the loss is folded
};

// Gradient of mse_loss.
struct MseLossBackwardOption {
  LossReduction reduction = LossReduction::kMean;  // the forward's reduction
};

// torch.nn.functional.nll_loss(weight, ignore_index, reduction).
struct NllLossOption {
  LossReduction reduction = LossReduction::kMean;  // how the loss is folded
  long ignore_index = -100;                        // targets of this class contribute nothing
};

// Gradient of nll_loss.
struct NllLossBackwardOption {
  LossReduction reduction = LossReduction::kMean;  // the forward's reduction
  long ignore_index = -100;                        // the forward's ignored class
};

// torch.nn.functional.soft_margin_loss(reduction).
struct SoftMarginLossOption {
  LossReduction reduction = LossReduction::kMean;  // how the loss is folded
};

// Gradient of soft_margin_loss.
struct SoftMarginLossBackwardOption {
  LossReduction reduction = LossReduction::kMean;  // the forward's reduction
};

// Gradient of batch normalisation.
struct BatchNormBackwardOption {
  bool training = false;  // use the saved batch statistics instead of the running ones
  float eps = 1e-5f;      // the forward's epsilon
  std::array<bool, 3> output_mask{true, true, true};  // which of grad input/weight/bias to write
};

// Gradient of group_norm.
struct GroupNormBackwardOption {
  int num_groups = 1;                                 // the forward's group count
  std::array<bool, 3> output_mask{true, true, true};  // which of grad input/weight/bias to write
};

// Gradient of layer_norm.
struct LayerNormBackwardOption {
  std::vector<long> normalized_shape;                 // the forward's normalised sizes
  std::array<bool, 3> output_mask{true, true, true};  // which of grad input/weight/bias to write
};

// torch elu_backward(grad_output, alpha, scale, input_scale, is_result, self_or_result).
struct ELUBackwardOption {
  float alpha = 1.0f;        // negative-side multiplier
  float scale = 1.0f;        // output scale (SELU uses 1.0507...)
  float input_scale = 1.0f;  // input scale of the exponential
  bool is_result = false;    // the second input is the forward's output, not its input
};

// Gradient of torch.nn.functional.glu(input, dim).
struct GLUBackwardOption {
  int dim = -1;  // the halved dimension
};

// Gradient of clamp(alpha * x + beta, 0, 1) (hardsigmoid: alpha 1/6, beta 1/2).
struct HardSigmoidBackwardOption {
  float alpha = 1.0f / 6.0f;  // slope
  float beta = 0.5f;          // offset
};

// Gradient of torch.nn.functional.hardtanh(min_val, max_val).
struct HardTanHBackwardOption {
  float min_val = -1.0f;  // lower bound
  float max_val = 1.0f;   // upper bound
};

// Gradient of torch.nn.functional.leaky_relu(negative_slope).
struct LeakyReluBackwardOption {
  float negative_slope = 0.01f;  // slope for negative inputs
  bool self_is_result = false;   // the second input is the forward's output
};

// Gradient of torch.logit(eps).
struct LogitBackwardOption {
  float eps = -1.0f;  // the forward's clamp; negative: none
};

// Gradient of log_softmax(dim).
struct LogSoftmaxBackwardOption {
  int dim = -1;  // the forward's dimension
};

// Gradient of softmax(dim).
struct SoftmaxBackwardOption {
  int dim = -1;  // the forward's dimension
};

// Gradient of Tensor.select(dim, index).
struct SelectBackwardOption {
  int dim = 0;     // the selected dimension
  long index = 0;  // position on it; negative counts from the end
};

// Gradient of a slice (torch slice_backward(grad, input_sizes, dim, start, end, step)).
struct SliceBackwardOption {
  int dim = 0;     // the sliced dimension
  long start = 0;  // first kept position
  long end = 0;    // exclusive bound
  long step = 1;   // stride of the kept positions
};

// Gradient of swish x * sigmoid(alpha * x).
struct SwishBackwardOption {
  float alpha = 1.0f;  // the forward's alpha
};

// Gradient of torch.nn.functional.threshold(threshold, value).
struct ThresholdBackwardOption {
  double threshold = 0.0;  // the gradient passes where input > threshold
};

// Gradient of upsample_nearest2d (torch upsample_nearest2d_backward).
struct UpsampleNearest2dBackwardOption {
  double scales_h = 0.0;  // the forward's height scale; 0: derived from the sizes
  double scales_w = 0.0;  // the forward's width scale; 0: derived from the sizes
};

}  // namespace nerva
