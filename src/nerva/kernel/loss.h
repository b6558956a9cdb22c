#pragma once

// Front-ends of the general operators: loss operators and their gradients. Each Create forwards its
// arguments, unchanged, to the queue's platform under the operator's registry name.

#include <cstdint>
#include <memory>
#include <vector>

#include "nerva/buffer.h"
#include "nerva/kernel.h"
#include "nerva/queue.h"
#include "nerva/tensor_option.h"

#include "nerva/kernel/train_option.h"

namespace nerva {

// torch.nn.functional.binary_cross_entropy with a rescaling weight.
class BCELoss {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const BCELossOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& target_opt, const Buffer& target,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& out_opt, Buffer& out);
  // "BCELossNoWeight": without a weight.
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const BCELossOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& target_opt, const Buffer& target,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.nn.functional.binary_cross_entropy_with_logits.
class BCEWithLogitsLoss {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const BCEWithLogitsLossOption& option, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& target_opt, const Buffer& target,
                       const TensorOption& out_opt, Buffer& out);
  // "BCEWithLogitsLossWithWeight": with a rescaling weight.
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const BCEWithLogitsLossOption& option, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& target_opt, const Buffer& target,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& out_opt, Buffer& out);
  // "BCEWithLogitsLossWithPosWeight": with a rescaling weight and a positive-class weight.
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const BCEWithLogitsLossOption& option, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& target_opt, const Buffer& target,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& pos_weight_opt, const Buffer& pos_weight,
                       const TensorOption& out_opt, Buffer& out);
};

// Gradient of BCELoss; weight may be empty.
class BinaryCrossEntropyBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const BinaryCrossEntropyBackwardOption& option,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& target_opt, const Buffer& target,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

// torch.nn.functional.ctc_loss; log_alpha keeps the forward variables for the backward.
class CTCLoss {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const CTCLossOption& option,
                       const TensorOption& log_probs_opt, const Buffer& log_probs,
                       const TensorOption& targets_opt, const Buffer& targets,
                       const TensorOption& input_lengths_opt, const Buffer& input_lengths,
                       const TensorOption& target_lengths_opt, const Buffer& target_lengths,
                       const TensorOption& loss_opt, Buffer& loss,
                       const TensorOption& log_alpha_opt, Buffer& log_alpha);
};

// Gradient of CTCLoss; log_beta is scratch for the backward variables.
class CTCLossBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const CTCLossBackwardOption& option, const TensorOption& grad_output_opt,
                       const Buffer& grad_output, const TensorOption& log_probs_opt,
                       const Buffer& log_probs, const TensorOption& targets_opt,
                       const Buffer& targets, const TensorOption& input_lengths_opt,
                       const Buffer& input_lengths, const TensorOption& target_lengths_opt,
                       const Buffer& target_lengths, const TensorOption& neg_log_likelihood_opt,
                       const Buffer& neg_log_likelihood, const TensorOption& log_alpha_opt,
                       const Buffer& log_alpha, const TensorOption& grad_input_opt,
                       Buffer& grad_input, const TensorOption& log_beta_opt, Buffer& log_beta);
};

// torch.nn.functional.cross_entropy with class indices as target and a class weight.
class CrossEntropyLoss {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const CrossEntropyLossOption& option, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& target_opt, const Buffer& target,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& out_opt, Buffer& out);
  // "CrossEntropyLossNoWeight": without a class weight.
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const CrossEntropyLossOption& option, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& target_opt, const Buffer& target,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.nn.functional.l1_loss.
class L1Loss {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const L1LossOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& target_opt, const Buffer& target,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.nn.functional.mse_loss.
class MseLoss {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const MseLossOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& target_opt, const Buffer& target,
                       const TensorOption& out_opt, Buffer& out);
};

// Gradient of MseLoss.
class MseLossBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const MseLossBackwardOption& option, const TensorOption& grad_output_opt,
                       const Buffer& grad_output, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& target_opt, const Buffer& target,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

// torch.nn.functional.nll_loss with a class weight; total_weight receives the summed weight
// of the counted targets.
class NllLoss {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const NllLossOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& target_opt, const Buffer& target,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& out_opt, Buffer& out,
                       const TensorOption& total_weight_opt, Buffer& total_weight);
  // "NllLossNoWeight": without a class weight.
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const NllLossOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& target_opt, const Buffer& target,
                       const TensorOption& out_opt, Buffer& out,
                       const TensorOption& total_weight_opt, Buffer& total_weight);
};

// Gradient of NllLoss.
class NllLossBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const NllLossBackwardOption& option, const TensorOption& grad_output_opt,
                       const Buffer& grad_output, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& target_opt, const Buffer& target,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& total_weight_opt, const Buffer& total_weight,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
  // "NllLossBackwardNoWeight": without a class weight.
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const NllLossBackwardOption& option, const TensorOption& grad_output_opt,
                       const Buffer& grad_output, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& target_opt, const Buffer& target,
                       const TensorOption& total_weight_opt, const Buffer& total_weight,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

// torch.nn.functional.soft_margin_loss.
class SoftMarginLoss {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const SoftMarginLossOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& target_opt, const Buffer& target,
                       const TensorOption& out_opt, Buffer& out);
};

// Gradient of SoftMarginLoss.
class SoftMarginLossBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const SoftMarginLossBackwardOption& option,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& target_opt, const Buffer& target,
                       const TensorOption& grad_input_opt, Buffer& grad_input);
};

}  // namespace nerva
