#pragma once

// Front-ends of the general operators: each Create forwards its arguments,
// unchanged, to the queue's platform under the operator's registry name.

#include <cstdint>
#include <memory>
#include <vector>

#include "nerva/buffer.h"
#include "nerva/kernel.h"
#include "nerva/queue.h"
#include "nerva/tensor.h"
#include "nerva/tensor_option.h"

namespace nerva {

// Element-wise activation functions; the values are the device operator codes.
enum ActivationType : int32_t {
  kCelu = 0,
  kElu = 1,
  kRelu = 2,
  kRelu6 = 3,
  kSigmoid = 4,
  kHardSigmoid = 5,
  kHardSwish = 6,
  kMish = 7,
  kHardTanh = 8,
  kLeakyRelu = 9,
  kGelu = 10,
  kGeluApproximateTanh = 11,
  kSilu = 12,
  kSelu = 13,
  kSwish = 14,
  kSRelu = 15,
};

struct ActivationOption {
  ActivationType op_type = kRelu;
  // CELU/ELU alpha, HARD_SIGMOID slope, HARD_TANH lower bound (min_val),
  // LEAKY_RELU negative slope, SWISH beta (x * sigmoid(alpha * x)).
  float alpha = 1.0f;
  // HARD_SIGMOID offset, HARD_TANH upper bound (max_val).
  float beta = 0.0f;
};

class Activation {
 public:
  // "ActivationV1": descriptor-and-buffer form.
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const ActivationOption& option,
                       const TensorOption& in_opt, const Buffer& in, const TensorOption& out_opt,
                       Buffer& out);
  // "Activation": tensor form.
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const ActivationOption& option,
                       const Tensor& in, const Tensor& out);
};

// torch.permute: output dimension i is input dimension dims[i].
struct PermuteOption {
  std::vector<int> dims;
};

class Permute {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const PermuteOption& option,
                       const TensorOption& in_opt, const Buffer& in, const TensorOption& out_opt,
                       Buffer& out);
};

// Half-open ranges on the leading dimensions: dimension i keeps elements
// starts[i], starts[i] + steps[i], ... below ends[i].
struct SliceOption {
  std::vector<long> starts;
  std::vector<long> ends;
  std::vector<long> steps;
};

class Slice {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const SliceOption& option,
                       const TensorOption& in_opt, const Buffer& in, const TensorOption& out_opt,
                       Buffer& out);
};

}  // namespace nerva
