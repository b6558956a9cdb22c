#include "nerva/kernel/loss.h"

namespace nerva {

Kernel BCELoss::Create(const std::shared_ptr<IQueueImpl>& queue, const BCELossOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& target_opt, const Buffer& target,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("BCELoss", option, input_opt, input, target_opt, target, weight_opt,
                             weight, out_opt, out);
}

Kernel BCELoss::Create(const std::shared_ptr<IQueueImpl>& queue, const BCELossOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& target_opt, const Buffer& target,
                       const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("BCELossNoWeight", option, input_opt, input, target_opt, target,
                             out_opt, out);
}

Kernel BCEWithLogitsLoss::Create(const std::shared_ptr<IQueueImpl>& queue,
                                 const BCEWithLogitsLossOption& option,
                                 const TensorOption& input_opt, const Buffer& input,
                                 const TensorOption& target_opt, const Buffer& target,
                                 const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("BCEWithLogitsLoss", option, input_opt, input, target_opt, target,
                             out_opt, out);
}

Kernel BCEWithLogitsLoss::Create(const std::shared_ptr<IQueueImpl>& queue,
                                 const BCEWithLogitsLossOption& option,
                                 const TensorOption& input_opt, const Buffer& input,
                                 const TensorOption& target_opt, const Buffer& target,
                                 const TensorOption& weight_opt, const Buffer& weight,
                                 const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("BCEWithLogitsLossWithWeight", option, input_opt, input, target_opt,
                             target, weight_opt, weight, out_opt, out);
}

Kernel BCEWithLogitsLoss::Create(const std::shared_ptr<IQueueImpl>& queue,
                                 const BCEWithLogitsLossOption& option,
                                 const TensorOption& input_opt, const Buffer& input,
                                 const TensorOption& target_opt, const Buffer& target,
                                 const TensorOption& weight_opt, const Buffer& weight,
                                 const TensorOption& pos_weight_opt, const Buffer& pos_weight,
                                 const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("BCEWithLogitsLossWithPosWeight", option, input_opt, input, target_opt,
                             target, weight_opt, weight, pos_weight_opt, pos_weight, out_opt, out);
}

Kernel BinaryCrossEntropyBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                                          const BinaryCrossEntropyBackwardOption& option,
                                          const TensorOption& grad_output_opt,
                                          const Buffer& grad_output, const TensorOption& input_opt,
                                          const Buffer& input, const TensorOption& target_opt,
                                          const Buffer& target, const TensorOption& weight_opt,
                                          const Buffer& weight, const TensorOption& grad_input_opt,
                                          Buffer& grad_input) {
  return queue->CreateKernel("BinaryCrossEntropyBackward", option, grad_output_opt, grad_output,
                             input_opt, input, target_opt, target, weight_opt, weight,
                             grad_input_opt, grad_input);
}

Kernel CTCLoss::Create(const std::shared_ptr<IQueueImpl>& queue, const CTCLossOption& option,
                       const TensorOption& log_probs_opt, const Buffer& log_probs,
                       const TensorOption& targets_opt, const Buffer& targets,
                       const TensorOption& input_lengths_opt, const Buffer& input_lengths,
                       const TensorOption& target_lengths_opt, const Buffer& target_lengths,
                       const TensorOption& loss_opt, Buffer& loss,
                       const TensorOption& log_alpha_opt, Buffer& log_alpha) {
  return queue->CreateKernel("CTCLoss", option, log_probs_opt, log_probs, targets_opt, targets,
                             input_lengths_opt, input_lengths, target_lengths_opt, target_lengths,
                             loss_opt, loss, log_alpha_opt, log_alpha);
}

Kernel CTCLossBackward::Create(
    const std::shared_ptr<IQueueImpl>& queue, const CTCLossBackwardOption& option,
    const TensorOption& grad_output_opt, const Buffer& grad_output,
    const TensorOption& log_probs_opt, const Buffer& log_probs, const TensorOption& targets_opt,
    const Buffer& targets, const TensorOption& input_lengths_opt, const Buffer& input_lengths,
    const TensorOption& target_lengths_opt, const Buffer& target_lengths,
    const TensorOption& neg_log_likelihood_opt, const Buffer& neg_log_likelihood,
    const TensorOption& log_alpha_opt, const Buffer& log_alpha, const TensorOption& grad_input_opt,
    Buffer& grad_input, const TensorOption& log_beta_opt, Buffer& log_beta) {
  return queue->CreateKernel("CTCLossBackward", option, grad_output_opt, grad_output, log_probs_opt,
                             log_probs, targets_opt, targets, input_lengths_opt, input_lengths,
                             target_lengths_opt, target_lengths, neg_log_likelihood_opt,
                             neg_log_likelihood, log_alpha_opt, log_alpha, grad_input_opt,
                             grad_input, log_beta_opt, log_beta);
}

Kernel CrossEntropyLoss::Create(const std::shared_ptr<IQueueImpl>& queue,
                                const CrossEntropyLossOption& option, const TensorOption& input_opt,
                                const Buffer& input, const TensorOption& target_opt,
                                const Buffer& target, const TensorOption& weight_opt,
                                const Buffer& weight, const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("CrossEntropyLoss", option, input_opt, input, target_opt, target,
                             weight_opt, weight, out_opt, out);
}

Kernel CrossEntropyLoss::Create(const std::shared_ptr<IQueueImpl>& queue,
                                const CrossEntropyLossOption& option, const TensorOption& input_opt,
                                const Buffer& input, const TensorOption& target_opt,
                                const Buffer& target, const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("CrossEntropyLossNoWeight", option, input_opt, input, target_opt,
                             target, out_opt, out);
}

Kernel L1Loss::Create(const std::shared_ptr<IQueueImpl>& queue, const L1LossOption& option,
                      const TensorOption& input_opt, const Buffer& input,
                      const TensorOption& target_opt, const Buffer& target,
                      const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("L1Loss", option, input_opt, input, target_opt, target, out_opt, out);
}

Kernel MseLoss::Create(const std::shared_ptr<IQueueImpl>& queue, const MseLossOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& target_opt, const Buffer& target,
                       const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("MseLoss", option, input_opt, input, target_opt, target, out_opt, out);
}

Kernel MseLossBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                               const MseLossBackwardOption& option,
                               const TensorOption& grad_output_opt, const Buffer& grad_output,
                               const TensorOption& input_opt, const Buffer& input,
                               const TensorOption& target_opt, const Buffer& target,
                               const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("MseLossBackward", option, grad_output_opt, grad_output, input_opt,
                             input, target_opt, target, grad_input_opt, grad_input);
}

Kernel NllLoss::Create(const std::shared_ptr<IQueueImpl>& queue, const NllLossOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& target_opt, const Buffer& target,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& out_opt, Buffer& out,
                       const TensorOption& total_weight_opt, Buffer& total_weight) {
  return queue->CreateKernel("NllLoss", option, input_opt, input, target_opt, target, weight_opt,
                             weight, out_opt, out, total_weight_opt, total_weight);
}

Kernel NllLoss::Create(const std::shared_ptr<IQueueImpl>& queue, const NllLossOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& target_opt, const Buffer& target,
                       const TensorOption& out_opt, Buffer& out,
                       const TensorOption& total_weight_opt, Buffer& total_weight) {
  return queue->CreateKernel("NllLossNoWeight", option, input_opt, input, target_opt, target,
                             out_opt, out, total_weight_opt, total_weight);
}

Kernel NllLossBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                               const NllLossBackwardOption& option,
                               const TensorOption& grad_output_opt, const Buffer& grad_output,
                               const TensorOption& input_opt, const Buffer& input,
                               const TensorOption& target_opt, const Buffer& target,
                               const TensorOption& weight_opt, const Buffer& weight,
                               const TensorOption& total_weight_opt, const Buffer& total_weight,
                               const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("NllLossBackward", option, grad_output_opt, grad_output, input_opt,
                             input, target_opt, target, weight_opt, weight, total_weight_opt,
                             total_weight, grad_input_opt, grad_input);
}

Kernel NllLossBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                               const NllLossBackwardOption& option,
                               const TensorOption& grad_output_opt, const Buffer& grad_output,
                               const TensorOption& input_opt, const Buffer& input,
                               const TensorOption& target_opt, const Buffer& target,
                               const TensorOption& total_weight_opt, const Buffer& total_weight,
                               const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("NllLossBackwardNoWeight", option, grad_output_opt, grad_output,
                             input_opt, input, target_opt, target, total_weight_opt, total_weight,
                             grad_input_opt, grad_input);
}

Kernel SoftMarginLoss::Create(const std::shared_ptr<IQueueImpl>& queue,
                              const SoftMarginLossOption& option, const TensorOption& input_opt,
                              const Buffer& input, const TensorOption& target_opt,
                              const Buffer& target, const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("SoftMarginLoss", option, input_opt, input, target_opt, target,
                             out_opt, out);
}

Kernel SoftMarginLossBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                                      const SoftMarginLossBackwardOption& option,
                                      const TensorOption& grad_output_opt,
                                      const Buffer& grad_output, const TensorOption& input_opt,
                                      const Buffer& input, const TensorOption& target_opt,
                                      const Buffer& target, const TensorOption& grad_input_opt,
                                      Buffer& grad_input) {
  return queue->CreateKernel("SoftMarginLossBackward", option, grad_output_opt, grad_output,
                             input_opt, input, target_opt, target, grad_input_opt, grad_input);
}

}  // namespace nerva
