#pragma once

// Front-ends of the general operators: random-number operators. Each Create forwards its
// arguments, unchanged, to the queue's platform under the operator's registry name.

#include <cstdint>
#include <memory>
#include <vector>

#include "nerva/buffer.h"
#include "nerva/kernel.h"
#include "nerva/queue.h"
#include "nerva/tensor_option.h"

#include "nerva/kernel/random_option.h"

namespace nerva {

// Draws 1 with the probability held by each input element, else 0.
class Bernoulli {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const BernoulliOption& option,
                       const TensorOption& probability_opt, const Buffer& probability,
                       const TensorOption& out_opt, Buffer& out);
};

// Fills the output with exponentially distributed values.
class Exponential {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const ExponentialOption& option,
                       const TensorOption& out_opt, Buffer& out);
};

// Fills the output with log-normally distributed values.
class LogNormal {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const LogNormalOption& option,
                       const TensorOption& out_opt, Buffer& out);
};

// Uniform floating-point values in [low, high).
class Rand {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const RandOption& option,
                       const TensorOption& out_opt, Buffer& out);
};

// Uniform integers in [low, high).
class RandInt {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const RandIntOption& option,
                       const TensorOption& out_opt, Buffer& out);
};

// Normally distributed values.
class RandN {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const RandNOption& option,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.randperm: a random permutation of 0 .. n-1; keys, temp and temp_indices are scratch.
class RandPerm {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& out_opt,
                       Buffer& out, const TensorOption& keys_opt, Buffer& keys,
                       const TensorOption& temp_opt, Buffer& temp,
                       const TensorOption& temp_indices_opt, Buffer& temp_indices);
};

// Random shuffle of the input along its first dimension; indices receives the permutation,
// keys, temp and temp_indices are scratch.
class Shuffle {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& out_opt, Buffer& out,
                       const TensorOption& indices_opt, Buffer& indices,
                       const TensorOption& keys_opt, Buffer& keys, const TensorOption& temp_opt,
                       Buffer& temp, const TensorOption& temp_indices_opt, Buffer& temp_indices);
};

}  // namespace nerva
