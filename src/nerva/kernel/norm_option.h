#pragma once

// Option records of the normalisation operators.

#include <vector>

namespace nerva {

// torch.nn.functional.batch_norm(training=False).
struct BatchNormOption {
  float eps = 1e-5f;  // added to the variance before the square root
};

// torch.nn.functional.batch_norm(training=True).
struct BatchNormTrainOption {
  float momentum = 0.1f;  // new running = momentum * batch + (1 - momentum) * running
  float eps = 1e-5f;      // added to the variance before the square root
};

// torch.nn.functional.group_norm(input, num_groups, weight, bias, eps).
struct GroupNormOption {
  int num_groups = 1;  // channels are split into this many groups
  float eps = 1e-5f;   // added to the variance before the square root
};

// torch.nn.functional.instance_norm with use_input_stats=True.
struct InstanceNormOption {
  float eps = 1e-5f;  // added to the variance before the square root
};

// torch.nn.functional.layer_norm(input, normalized_shape, weight, bias, eps).
struct LayerNormOption {
  std::vector<long> normalized_shape;  // the normalised trailing sizes
  float eps = 1e-5f;                   // added to the variance before the square root
};

// torch.nn.functional.rms_norm(input, normalized_shape, weight, eps).
struct RMSNormOption {
  std::vector<long> normalized_shape;  // the normalised trailing sizes
  float eps = 1e-6f;                   // added to the mean square before the square root
};

}  // namespace nerva
