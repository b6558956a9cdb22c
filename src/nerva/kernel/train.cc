#include "nerva/kernel/train.h"

namespace nerva {

Kernel AdaptiveAvgPool2DBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                                         const TensorOption& grad_output_opt,
                                         const Buffer& grad_output,
                                         const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("AdaptiveAvgPool2DBackward", grad_output_opt, grad_output,
                             grad_input_opt, grad_input);
}

Kernel AdaptiveAvgPool3DBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                                         const TensorOption& grad_output_opt,
                                         const Buffer& grad_output,
                                         const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("AdaptiveAvgPool3DBackward", grad_output_opt, grad_output,
                             grad_input_opt, grad_input);
}

Kernel AvgPool2DBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                                 const AvgPool2DBackwardOption& option,
                                 const TensorOption& grad_output_opt, const Buffer& grad_output,
                                 const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("AvgPool2DBackward", option, grad_output_opt, grad_output,
                             grad_input_opt, grad_input);
}

Kernel AvgPool3DBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                                 const AvgPool3DBackwardOption& option,
                                 const TensorOption& grad_output_opt, const Buffer& grad_output,
                                 const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("AvgPool3DBackward", option, grad_output_opt, grad_output,
                             grad_input_opt, grad_input);
}

Kernel BatchNormBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                                 const BatchNormBackwardOption& option,
                                 const TensorOption& grad_output_opt, const Buffer& grad_output,
                                 const TensorOption& input_opt, const Buffer& input,
                                 const TensorOption& weight_opt, const Buffer& weight,
                                 const TensorOption& running_mean_opt, const Buffer& running_mean,
                                 const TensorOption& running_var_opt, const Buffer& running_var,
                                 const TensorOption& save_mean_opt, const Buffer& save_mean,
                                 const TensorOption& save_rstd_opt, const Buffer& save_rstd,
                                 const TensorOption& grad_input_opt, Buffer& grad_input,
                                 const TensorOption& grad_weight_opt, Buffer& grad_weight,
                                 const TensorOption& grad_bias_opt, Buffer& grad_bias) {
  return queue->CreateKernel("BatchNormBackward", option, grad_output_opt, grad_output, input_opt,
                             input, weight_opt, weight, running_mean_opt, running_mean,
                             running_var_opt, running_var, save_mean_opt, save_mean, save_rstd_opt,
                             save_rstd, grad_input_opt, grad_input, grad_weight_opt, grad_weight,
                             grad_bias_opt, grad_bias);
}

Kernel ELUBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                           const ELUBackwardOption& option, const TensorOption& grad_output_opt,
                           const Buffer& grad_output, const TensorOption& self_or_result_opt,
                           const Buffer& self_or_result, const TensorOption& grad_input_opt,
                           Buffer& grad_input) {
  return queue->CreateKernel("ELUBackward", option, grad_output_opt, grad_output,
                             self_or_result_opt, self_or_result, grad_input_opt, grad_input);
}

Kernel GeLUBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                            const TensorOption& grad_output_opt, const Buffer& grad_output,
                            const TensorOption& input_opt, const Buffer& input,
                            const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("GeLUBackward", grad_output_opt, grad_output, input_opt, input,
                             grad_input_opt, grad_input);
}

Kernel GLUBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                           const GLUBackwardOption& option, const TensorOption& grad_output_opt,
                           const Buffer& grad_output, const TensorOption& input_opt,
                           const Buffer& input, const TensorOption& grad_input_opt,
                           Buffer& grad_input) {
  return queue->CreateKernel("GLUBackward", option, grad_output_opt, grad_output, input_opt, input,
                             grad_input_opt, grad_input);
}

Kernel GroupNormBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                                 const GroupNormBackwardOption& option,
                                 const TensorOption& grad_output_opt, const Buffer& grad_output,
                                 const TensorOption& input_opt, const Buffer& input,
                                 const TensorOption& mean_opt, const Buffer& mean,
                                 const TensorOption& rstd_opt, const Buffer& rstd,
                                 const TensorOption& weight_opt, const Buffer& weight,
                                 const TensorOption& grad_input_opt, Buffer& grad_input,
                                 const TensorOption& grad_weight_opt, Buffer& grad_weight,
                                 const TensorOption& grad_bias_opt, Buffer& grad_bias) {
  return queue->CreateKernel("GroupNormBackward", option, grad_output_opt, grad_output, input_opt,
                             input, mean_opt, mean, rstd_opt, rstd, weight_opt, weight,
                             grad_input_opt, grad_input, grad_weight_opt, grad_weight,
                             grad_bias_opt, grad_bias);
}

Kernel HardSigmoidBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                                   const HardSigmoidBackwardOption& option,
                                   const TensorOption& grad_output_opt, const Buffer& grad_output,
                                   const TensorOption& input_opt, const Buffer& input,
                                   const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("HardSigmoidBackward", option, grad_output_opt, grad_output, input_opt,
                             input, grad_input_opt, grad_input);
}

Kernel HardSwishBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                                 const TensorOption& grad_output_opt, const Buffer& grad_output,
                                 const TensorOption& input_opt, const Buffer& input,
                                 const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("HardSwishBackward", grad_output_opt, grad_output, input_opt, input,
                             grad_input_opt, grad_input);
}

Kernel HardTanHBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                                const HardTanHBackwardOption& option,
                                const TensorOption& grad_output_opt, const Buffer& grad_output,
                                const TensorOption& input_opt, const Buffer& input,
                                const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("HardTanHBackward", option, grad_output_opt, grad_output, input_opt,
                             input, grad_input_opt, grad_input);
}

Kernel LayerNormBackward::Create(
    const std::shared_ptr<IQueueImpl>& queue, const LayerNormBackwardOption& option,
    const TensorOption& grad_output_opt, const Buffer& grad_output, const TensorOption& input_opt,
    const Buffer& input, const TensorOption& mean_opt, const Buffer& mean,
    const TensorOption& rstd_opt, const Buffer& rstd, const TensorOption& weight_opt,
    const Buffer& weight, const TensorOption& bias_opt, const Buffer& bias,
    const TensorOption& grad_input_opt, Buffer& grad_input, const TensorOption& grad_weight_opt,
    Buffer& grad_weight, const TensorOption& grad_bias_opt, Buffer& grad_bias) {
  return queue->CreateKernel("LayerNormBackward", option, grad_output_opt, grad_output, input_opt,
                             input, mean_opt, mean, rstd_opt, rstd, weight_opt, weight, bias_opt,
                             bias, grad_input_opt, grad_input, grad_weight_opt, grad_weight,
                             grad_bias_opt, grad_bias);
}

Kernel LeakyReluBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                                 const LeakyReluBackwardOption& option,
                                 const TensorOption& grad_output_opt, const Buffer& grad_output,
                                 const TensorOption& input_opt, const Buffer& input,
                                 const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("LeakyReluBackward", option, grad_output_opt, grad_output, input_opt,
                             input, grad_input_opt, grad_input);
}

Kernel LogitBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                             const LogitBackwardOption& option, const TensorOption& grad_output_opt,
                             const Buffer& grad_output, const TensorOption& input_opt,
                             const Buffer& input, const TensorOption& grad_input_opt,
                             Buffer& grad_input) {
  return queue->CreateKernel("LogitBackward", option, grad_output_opt, grad_output, input_opt,
                             input, grad_input_opt, grad_input);
}

Kernel LogSigmoidBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                                  const TensorOption& grad_output_opt, const Buffer& grad_output,
                                  const TensorOption& input_opt, const Buffer& input,
                                  const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("LogSigmoidBackward", grad_output_opt, grad_output, input_opt, input,
                             grad_input_opt, grad_input);
}

Kernel LogSoftmaxBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                                  const LogSoftmaxBackwardOption& option,
                                  const TensorOption& grad_output_opt, const Buffer& grad_output,
                                  const TensorOption& output_opt, const Buffer& output,
                                  const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("LogSoftmaxBackward", option, grad_output_opt, grad_output, output_opt,
                             output, grad_input_opt, grad_input);
}

Kernel MaxPool2DWithIndicesBackward::Create(
    const std::shared_ptr<IQueueImpl>& queue, const MaxPool2DWithIndicesBackwardOption& option,
    const TensorOption& grad_output_opt, const Buffer& grad_output, const TensorOption& indices_opt,
    const Buffer& indices, const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("MaxPool2DWithIndicesBackward", option, grad_output_opt, grad_output,
                             indices_opt, indices, grad_input_opt, grad_input);
}

Kernel MaxPool3DWithIndicesBackward::Create(
    const std::shared_ptr<IQueueImpl>& queue, const MaxPool3DWithIndicesBackwardOption& option,
    const TensorOption& grad_output_opt, const Buffer& grad_output, const TensorOption& indices_opt,
    const Buffer& indices, const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("MaxPool3DWithIndicesBackward", option, grad_output_opt, grad_output,
                             indices_opt, indices, grad_input_opt, grad_input);
}

Kernel MishBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                            const TensorOption& grad_output_opt, const Buffer& grad_output,
                            const TensorOption& input_opt, const Buffer& input,
                            const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("MishBackward", grad_output_opt, grad_output, input_opt, input,
                             grad_input_opt, grad_input);
}

Kernel ThresholdBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                                 const ThresholdBackwardOption& option,
                                 const TensorOption& grad_output_opt, const Buffer& grad_output,
                                 const TensorOption& input_opt, const Buffer& input,
                                 const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("ThresholdBackward", option, grad_output_opt, grad_output, input_opt,
                             input, grad_input_opt, grad_input);
}

Kernel ReLUBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                            const TensorOption& grad_output_opt, const Buffer& grad_output,
                            const TensorOption& input_opt, const Buffer& input,
                            const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("ReLUBackward", grad_output_opt, grad_output, input_opt, input,
                             grad_input_opt, grad_input);
}

Kernel SigmoidBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                               const TensorOption& grad_output_opt, const Buffer& grad_output,
                               const TensorOption& output_opt, const Buffer& output,
                               const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("SigmoidBackward", grad_output_opt, grad_output, output_opt, output,
                             grad_input_opt, grad_input);
}

Kernel SiluBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                            const TensorOption& grad_output_opt, const Buffer& grad_output,
                            const TensorOption& input_opt, const Buffer& input,
                            const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("SiluBackward", grad_output_opt, grad_output, input_opt, input,
                             grad_input_opt, grad_input);
}

Kernel SelectBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                              const SelectBackwardOption& option,
                              const TensorOption& grad_output_opt, const Buffer& grad_output,
                              const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("SelectBackward", option, grad_output_opt, grad_output, grad_input_opt,
                             grad_input);
}

Kernel SliceBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                             const SliceBackwardOption& option, const TensorOption& grad_output_opt,
                             const Buffer& grad_output, const TensorOption& grad_input_opt,
                             Buffer& grad_input) {
  return queue->CreateKernel("SliceBackward", option, grad_output_opt, grad_output, grad_input_opt,
                             grad_input);
}

Kernel SoftmaxBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                               const SoftmaxBackwardOption& option,
                               const TensorOption& grad_output_opt, const Buffer& grad_output,
                               const TensorOption& output_opt, const Buffer& output,
                               const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("SoftmaxBackward", option, grad_output_opt, grad_output, output_opt,
                             output, grad_input_opt, grad_input);
}

Kernel SReLUBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                             const TensorOption& grad_output_opt, const Buffer& grad_output,
                             const TensorOption& input_opt, const Buffer& input,
                             const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("SReLUBackward", grad_output_opt, grad_output, input_opt, input,
                             grad_input_opt, grad_input);
}

Kernel SwishBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                             const SwishBackwardOption& option, const TensorOption& grad_output_opt,
                             const Buffer& grad_output, const TensorOption& input_opt,
                             const Buffer& input, const TensorOption& grad_input_opt,
                             Buffer& grad_input) {
  return queue->CreateKernel("SwishBackward", option, grad_output_opt, grad_output, input_opt,
                             input, grad_input_opt, grad_input);
}

Kernel TanHBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                            const TensorOption& grad_output_opt, const Buffer& grad_output,
                            const TensorOption& output_opt, const Buffer& output,
                            const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("TanHBackward", grad_output_opt, grad_output, output_opt, output,
                             grad_input_opt, grad_input);
}

Kernel UpsampleNearest2dBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                                         const UpsampleNearest2dBackwardOption& option,
                                         const TensorOption& grad_output_opt,
                                         const Buffer& grad_output,
                                         const TensorOption& grad_input_opt, Buffer& grad_input) {
  return queue->CreateKernel("UpsampleNearest2dBackward", option, grad_output_opt, grad_output,
                             grad_input_opt, grad_input);
}

}  // namespace nerva
