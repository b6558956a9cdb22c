#pragma once

// Front-ends of the general operators: each Create forwards its arguments,
// unchanged, to the queue's platform under the operator's registry name. This header
// holds the layout and creation operators and the matrix product, and includes the
// other general families.

#include <cstdint>
#include <memory>
#include <vector>

#include "nerva/buffer.h"
#include "nerva/kernel.h"
#include "nerva/queue.h"
#include "nerva/tensor.h"
#include "nerva/tensor_option.h"

#include "nerva/kernel/base_option.h"
#include "nerva/kernel/elementwise.h"
#include "nerva/kernel/indexing.h"
#include "nerva/kernel/normalization.h"
#include "nerva/kernel/random.h"
#include "nerva/kernel/reduce.h"

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

// torch.arange: start, start + step, ... below end.
class ARange {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const ARangeOption& option,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.cat of the inputs along one dimension.
class Concat {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const ConcatOption& option,
                       const std::vector<TensorOption>& inputs_opts,
                       const std::vector<Buffer>& inputs, const TensorOption& out_opt, Buffer& out);
};

// Materialises the input broadcast to the output's shape.
class BroadcastTo {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& out_opt, Buffer& out);
};

// Copies between arbitrary strides, converting the element type when the two differ.
class Copy {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const CopyOption& option,
                       const TensorOption& src_opt, const Buffer& src, const TensorOption& dst_opt,
                       Buffer& dst);
};

// torch.nn.functional.pixel_shuffle: (N, C*r*r, H, W) -> (N, C, H*r, W*r).
class DepthToSpace {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const DepthToSpaceOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.eye: ones on the main diagonal, zeros elsewhere.
class Eye {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const EyeOption& option,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.flip: reverses the order of elements along the given dimensions.
class Flip {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const FlipOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.linspace: steps values evenly spaced from start to end.
class Linspace {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const LinspaceOption& option,
                       const TensorOption& out_opt, Buffer& out);
};

// Batched, broadcasting matrix product (torch.matmul).
class MatMul {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const MatMulOption& option,
                       const TensorOption& mat1_opt, const Buffer& mat1,
                       const TensorOption& mat2_opt, const Buffer& mat2,
                       const TensorOption& out_opt, Buffer& out);
  // "Gemm": out = alpha * (mat1 @ mat2) + beta * input, input broadcasting to out.
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const MatMulOption& option,
                       const TensorOption& mat1_opt, const Buffer& mat1,
                       const TensorOption& mat2_opt, const Buffer& mat2,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.Tensor.repeat: tiles the input repeats[i] times along dimension i.
class Repeat {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const RepeatOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
  // "Repeat_Interleave": torch.repeat_interleave along dim with per-element repeats and their
  // inclusive running sum.
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const RepeatOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& repeats_opt, const Buffer& repeats,
                       const TensorOption& repeats_cumsum_opt, const Buffer& repeats_cumsum,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.roll.
class Roll {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const RollOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.slice_scatter: out = input with the slice described by the option replaced by src.
class SliceScatter {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const SliceOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& src_opt, const Buffer& src, const TensorOption& out_opt,
                       Buffer& out);
};

// torch.nn.functional.pixel_unshuffle: (N, C, H*r, W*r) -> (N, C*r*r, H, W).
class SpaceToDepth {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const SpaceToDepthOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.split along one dimension into the outputs.
class Split {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const SplitOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const std::vector<TensorOption>& outs_opts, const std::vector<Buffer>& outs);
};

// Tiles the input to the output's shape (each output dimension a multiple of the input's).
class Tile {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& out_opt, Buffer& out);
};

}  // namespace nerva
