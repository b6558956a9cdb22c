#pragma once

// Front-ends of the general operators: element-wise operators: unary, binary and ternary functions,
// their multi-tensor "for each" forms, and the small parametrised element-wise operators. Each
// Create forwards its arguments, unchanged, to the queue's platform under the operator's registry
// name.

#include <cstdint>
#include <memory>
#include <vector>

#include "nerva/buffer.h"
#include "nerva/kernel.h"
#include "nerva/queue.h"
#include "nerva/tensor_option.h"

#include "nerva/kernel/elementwise_option.h"

namespace nerva {

// Broadcasting element-wise binary operator.
class Binary {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const BinaryOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& other_opt, const Buffer& other,
                       const TensorOption& out_opt, Buffer& out);
};

// Element-type conversion of a whole tensor (shapes are equal).
class Cast {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& out_opt, Buffer& out);
};

// torch.clamp with broadcasting tensor bounds.
class Clamp {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& min_value_opt,
                       const Buffer& min_value, const TensorOption& max_value_opt,
                       const Buffer& max_value, const TensorOption& out_opt, Buffer& out);
};

// torch.digamma.
class Digamma {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& out_opt, Buffer& out);
};

// torch._foreach_* binary operators: outs[i] = op(inputs[i], others[i]).
class ForEachBinary {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const ForEachBinaryOption& option,
                       const std::vector<TensorOption>& inputs_opts,
                       const std::vector<Buffer>& inputs,
                       const std::vector<TensorOption>& others_opts,
                       const std::vector<Buffer>& others,
                       const std::vector<TensorOption>& outs_opts, const std::vector<Buffer>& outs);
};

// torch._foreach_* ternary operators: outs[i] = op(inputs[i], tensors1[i], tensors2[i]).
class ForEachTernary {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const ForEachTernaryOption& option,
                       const std::vector<TensorOption>& inputs_opts,
                       const std::vector<Buffer>& inputs,
                       const std::vector<TensorOption>& tensors1_opts,
                       const std::vector<Buffer>& tensors1,
                       const std::vector<TensorOption>& tensors2_opts,
                       const std::vector<Buffer>& tensors2,
                       const std::vector<TensorOption>& outs_opts, const std::vector<Buffer>& outs);
};

// torch._foreach_* unary operators: outs[i] = op(inputs[i]).
class ForEachUnary {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const ForEachUnaryOption& option,
                       const std::vector<TensorOption>& inputs_opts,
                       const std::vector<Buffer>& inputs,
                       const std::vector<TensorOption>& outs_opts, const std::vector<Buffer>& outs);
};

// torch.gcd of integer tensors.
class Gcd {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& other_opt, const Buffer& other,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.logit: log(p / (1 - p)).
class Logit {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const LogitOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.masked_fill with a broadcasting boolean mask.
class MaskedFill {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const MaskedFillOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& mask_opt, const Buffer& mask,
                       const TensorOption& out_opt, Buffer& out);
};

// Broadcasting element-wise ternary operator.
class Ternary {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const TernaryOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& tensor1_opt, const Buffer& tensor1,
                       const TensorOption& tensor2_opt, const Buffer& tensor2,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.nn.functional.threshold: x > threshold ? x : value.
class Threshold {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const ThresholdOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
};

// Element-wise unary operator.
class Unary {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const UnaryOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.where with broadcasting.
class Where {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& condition_opt,
                       const Buffer& condition, const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& other_opt, const Buffer& other,
                       const TensorOption& out_opt, Buffer& out);
};

}  // namespace nerva
