#include "nerva/kernel/normalization.h"

namespace nerva {

Kernel BatchNorm::Create(const std::shared_ptr<IQueueImpl>& queue, const BatchNormOption& option,
                         const TensorOption& input_opt, const Buffer& input,
                         const TensorOption& running_mean_opt, const Buffer& running_mean,
                         const TensorOption& running_var_opt, const Buffer& running_var,
                         const TensorOption& weight_opt, const Buffer& weight,
                         const TensorOption& bias_opt, const Buffer& bias,
                         const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("BatchNorm", option, input_opt, input, running_mean_opt, running_mean,
                             running_var_opt, running_var, weight_opt, weight, bias_opt, bias,
                             out_opt, out);
}

Kernel BatchNormTrain::Create(const std::shared_ptr<IQueueImpl>& queue,
                              const BatchNormTrainOption& option, const TensorOption& input_opt,
                              const Buffer& input, const TensorOption& running_mean_opt,
                              const Buffer& running_mean, const TensorOption& running_var_opt,
                              const Buffer& running_var, const TensorOption& weight_opt,
                              const Buffer& weight, const TensorOption& bias_opt,
                              const Buffer& bias, const TensorOption& out_opt, Buffer& out,
                              const TensorOption& save_mean_opt, Buffer& save_mean,
                              const TensorOption& save_rstd_opt, Buffer& save_rstd,
                              const TensorOption& new_running_mean_opt, Buffer& new_running_mean,
                              const TensorOption& new_running_var_opt, Buffer& new_running_var) {
  return queue->CreateKernel("BatchNormTrain", option, input_opt, input, running_mean_opt,
                             running_mean, running_var_opt, running_var, weight_opt, weight,
                             bias_opt, bias, out_opt, out, save_mean_opt, save_mean, save_rstd_opt,
                             save_rstd, new_running_mean_opt, new_running_mean, new_running_var_opt,
                             new_running_var);
}

Kernel GroupNorm::Create(const std::shared_ptr<IQueueImpl>& queue, const GroupNormOption& option,
                         const TensorOption& input_opt, const Buffer& input,
                         const TensorOption& weight_opt, const Buffer& weight,
                         const TensorOption& bias_opt, const Buffer& bias,
                         const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("GroupNorm", option, input_opt, input, weight_opt, weight, bias_opt,
                             bias, out_opt, out);
}

Kernel GroupNorm::Create(const std::shared_ptr<IQueueImpl>& queue, const GroupNormOption& option,
                         const TensorOption& input_opt, const Buffer& input,
                         const TensorOption& weight_opt, const Buffer& weight,
                         const TensorOption& bias_opt, const Buffer& bias,
                         const TensorOption& out_opt, Buffer& out, const TensorOption& mean_opt,
                         Buffer& mean, const TensorOption& rstd_opt, Buffer& rstd) {
  return queue->CreateKernel("GroupNormWithTraining", option, input_opt, input, weight_opt, weight,
                             bias_opt, bias, out_opt, out, mean_opt, mean, rstd_opt, rstd);
}

Kernel InstanceNorm::Create(const std::shared_ptr<IQueueImpl>& queue,
                            const InstanceNormOption& option, const TensorOption& input_opt,
                            const Buffer& input, const TensorOption& weight_opt,
                            const Buffer& weight, const TensorOption& bias_opt, const Buffer& bias,
                            const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("InstanceNorm", option, input_opt, input, weight_opt, weight, bias_opt,
                             bias, out_opt, out);
}

Kernel LayerNorm::Create(const std::shared_ptr<IQueueImpl>& queue, const LayerNormOption& option,
                         const TensorOption& input_opt, const Buffer& input,
                         const TensorOption& weight_opt, const Buffer& weight,
                         const TensorOption& bias_opt, const Buffer& bias,
                         const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("LayerNorm", option, input_opt, input, weight_opt, weight, bias_opt,
                             bias, out_opt, out);
}

Kernel LayerNorm::Create(const std::shared_ptr<IQueueImpl>& queue, const LayerNormOption& option,
                         const TensorOption& input_opt, const Buffer& input,
                         const TensorOption& weight_opt, const Buffer& weight,
                         const TensorOption& bias_opt, const Buffer& bias,
                         const TensorOption& out_opt, Buffer& out, const TensorOption& mean_opt,
                         Buffer& mean, const TensorOption& rstd_opt, Buffer& rstd) {
  return queue->CreateKernel("LayerNormWithTraining", option, input_opt, input, weight_opt, weight,
                             bias_opt, bias, out_opt, out, mean_opt, mean, rstd_opt, rstd);
}

Kernel RMSNorm::Create(const std::shared_ptr<IQueueImpl>& queue, const RMSNormOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("RMSNorm", option, input_opt, input, weight_opt, weight, out_opt, out);
}

}  // namespace nerva
