#pragma once

// Front-ends of the general operators: reductions, scans, softmax, norms, sorting and selection.
// Each Create forwards its arguments, unchanged, to the queue's platform under the operator's
// registry name.

#include <cstdint>
#include <memory>
#include <vector>

#include "nerva/buffer.h"
#include "nerva/kernel.h"
#include "nerva/queue.h"
#include "nerva/tensor_option.h"

#include "nerva/kernel/base_option.h"
#include "nerva/kernel/reduce_option.h"

namespace nerva {

// torch.argmax along one dimension; on ties the later element wins.
class ArgMax {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const ArgMaxOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.argmin along one dimension; on ties the later element wins.
class ArgMin {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const ArgMinOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
};

// Sorts along one dimension. temp and temp_indices are scratch tensors whose sorted dimension
// has length 2^(n+1), n = max(ceil(log2(length / 2)), 0).
// "BitonicSortWithIndices": also writes the source position of every sorted value.
class BitonicSort {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const BitonicSortOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& temp_opt, Buffer& temp, const TensorOption& out_opt,
                       Buffer& out, const TensorOption& temp_indices_opt, Buffer& temp_indices,
                       const TensorOption& indices_opt, Buffer& indices);
  // "BitonicSort": values only.
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const BitonicSortOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& temp_opt, Buffer& temp, const TensorOption& out_opt,
                       Buffer& out);
};

// torch.cumsum: inclusive running sum along one dimension.
class Cumsum {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const CumsumOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.linalg.vector_norm.
class LinalgVectorNorm {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const LinalgVectorNormOption& option, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& out_opt, Buffer& out);
};

// torch.embedding_renorm_: rescales, in place, the rows of weight selected by indices whose
// norm exceeds max_norm.
class MaxNorm {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const MaxNormOption& option,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& indices_opt, const Buffer& indices);
};

// torch.nonzero: one row of coordinates per non-zero element. flags, flat_indices and count
// are scratch tensors (non-zero flags, flat positions, number of non-zero elements).
class Nonzero {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& flags_opt, const Buffer& flags,
                       const TensorOption& flat_indices_opt, const Buffer& flat_indices,
                       const TensorOption& count_opt, const Buffer& count,
                       const TensorOption& out_opt, const Buffer& out);
};

// Reduction over a set of consecutive dimensions (or [0, 2] / [0, 2, 3]).
class Reduce {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const ReduceOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.max / torch.min along one dimension, with the indices of the extremes.
class ReduceWithIndices {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const ReduceWithIndicesOption& option, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& values_opt, Buffer& values,
                       const TensorOption& indices_opt, Buffer& indices);
};

// torch.median along one dimension, with indices; temp and temp_indices are sort scratch.
class ReduceWithIndicesMedian {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const ReduceWithIndicesMedianOption& option, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& values_opt, Buffer& values,
                       const TensorOption& indices_opt, Buffer& indices,
                       const TensorOption& temp_opt, Buffer& temp,
                       const TensorOption& temp_indices_opt, Buffer& temp_indices);
};

// torch.renorm: rescales each sub-tensor along dim whose p-norm exceeds maxnorm.
class Renorm {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const RenormOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.softmax along one dimension.
class Softmax {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const SoftmaxOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.topk along one dimension.
class TopK {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const TopKOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& values_opt, Buffer& values,
                       const TensorOption& indices_opt, Buffer& indices);
};

}  // namespace nerva
