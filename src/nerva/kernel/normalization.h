#pragma once

// Front-ends of the general operators: normalisation operators. Each Create forwards its
// arguments, unchanged, to the queue's platform under the operator's registry name.

#include <cstdint>
#include <memory>
#include <vector>

#include "nerva/buffer.h"
#include "nerva/kernel.h"
#include "nerva/queue.h"
#include "nerva/tensor_option.h"

#include "nerva/kernel/norm_option.h"

namespace nerva {

// Inference batch normalisation with the running statistics (channels on dimension 1).
class BatchNorm {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const BatchNormOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& running_mean_opt, const Buffer& running_mean,
                       const TensorOption& running_var_opt, const Buffer& running_var,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& bias_opt, const Buffer& bias,
                       const TensorOption& out_opt, Buffer& out);
};

// Training batch normalisation: normalises with the batch statistics, saves the batch mean
// and rstd, and writes the updated running statistics.
class BatchNormTrain {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const BatchNormTrainOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& running_mean_opt, const Buffer& running_mean,
                       const TensorOption& running_var_opt, const Buffer& running_var,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& bias_opt, const Buffer& bias,
                       const TensorOption& out_opt, Buffer& out, const TensorOption& save_mean_opt,
                       Buffer& save_mean, const TensorOption& save_rstd_opt, Buffer& save_rstd,
                       const TensorOption& new_running_mean_opt, Buffer& new_running_mean,
                       const TensorOption& new_running_var_opt, Buffer& new_running_var);
};

// torch.nn.functional.group_norm; weight and bias may be empty.
class GroupNorm {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const GroupNormOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& bias_opt, const Buffer& bias,
                       const TensorOption& out_opt, Buffer& out);
  // "GroupNormWithTraining": also saves the (batch x group) mean and rstd.
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const GroupNormOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& bias_opt, const Buffer& bias,
                       const TensorOption& out_opt, Buffer& out, const TensorOption& mean_opt,
                       Buffer& mean, const TensorOption& rstd_opt, Buffer& rstd);
};

// torch.nn.functional.instance_norm with batch statistics; weight and bias may be empty.
class InstanceNorm {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const InstanceNormOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& bias_opt, const Buffer& bias,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.nn.functional.layer_norm over the trailing dimensions; weight and bias may be empty.
class LayerNorm {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const LayerNormOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& bias_opt, const Buffer& bias,
                       const TensorOption& out_opt, Buffer& out);
  // "LayerNormWithTraining": also saves the per-row mean and rstd.
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const LayerNormOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& bias_opt, const Buffer& bias,
                       const TensorOption& out_opt, Buffer& out, const TensorOption& mean_opt,
                       Buffer& mean, const TensorOption& rstd_opt, Buffer& rstd);
};

// torch.nn.functional.rms_norm over the trailing dimensions; weight may be empty.
class RMSNorm {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const RMSNormOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& out_opt, Buffer& out);
};

}  // namespace nerva
