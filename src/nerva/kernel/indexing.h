#pragma once

// Front-ends of the general operators: gather, index, scatter and embedding-bag operators. Each
// Create forwards its arguments, unchanged, to the queue's platform under the operator's registry
// name.

#include <cstdint>
#include <memory>
#include <vector>

#include "nerva/buffer.h"
#include "nerva/kernel.h"
#include "nerva/queue.h"
#include "nerva/tensor_option.h"

#include "nerva/kernel/base_option.h"

namespace nerva {

// torch.nn.functional.embedding_bag; per_sample_weights may be empty.
class EmbeddingBag {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const EmbeddingBagOption& option,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& indices_opt, const Buffer& indices,
                       const TensorOption& offsets_opt, const Buffer& offsets,
                       const TensorOption& per_sample_weights_opt, const Buffer& per_sample_weights,
                       const TensorOption& out_opt, Buffer& out);
};

// Gradient of EmbeddingBag with respect to the weight. offset2bag maps every index to its bag;
// max_indices (kMax mode) and per_sample_weights (kSum mode) may be empty otherwise.
class EmbeddingBagBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const EmbeddingBagBackwardOption& option, const TensorOption& grad_opt,
                       const Buffer& grad, const TensorOption& indices_opt, const Buffer& indices,
                       const TensorOption& offsets_opt, const Buffer& offsets,
                       const TensorOption& offset2bag_opt, const Buffer& offset2bag,
                       const TensorOption& max_indices_opt, const Buffer& max_indices,
                       const TensorOption& per_sample_weights_opt, const Buffer& per_sample_weights,
                       const TensorOption& grad_weight_opt, Buffer& grad_weight);
};

// Gathers whole slices: the input indexed along one dimension by every element of index
// (torch.index_select for a 1-D index; index may have any rank).
class Gather {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const GatherOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& index_opt, const Buffer& index,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.gather: out[i][j][k] = input[index[i][j][k]][j][k] for dim 0, and so on.
class GatherElement {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const GatherElementOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& index_opt, const Buffer& index,
                       const TensorOption& out_opt, Buffer& out);
};

// Indexing along one dimension by an index tensor: input[..., index, ...].
class Index {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const IndexOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& index_opt, const Buffer& index,
                       const TensorOption& out_opt, Buffer& out);
  // "IndexWithIndicesArray": advanced indexing input[indices[0], indices[1], ...].
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& input_opt,
                       const Buffer& input, const std::vector<TensorOption>& indices_opts,
                       const std::vector<Buffer>& indices, const TensorOption& out_opt,
                       Buffer& out);
};

// torch.index_put along one dimension: out = input with out[..., index, ...] = values.
class IndexPut {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const IndexPutOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& index_opt, const Buffer& index,
                       const TensorOption& values_opt, const Buffer& values,
                       const TensorOption& out_opt, Buffer& out);
  // "IndexPutWithIndicesArray": out[indices[0], indices[1], ...] = values.
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const IndexPutOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const std::vector<TensorOption>& indices_opts,
                       const std::vector<Buffer>& indices, const TensorOption& values_opt,
                       const Buffer& values, const TensorOption& out_opt, Buffer& out);
};

// torch.index_reduce: reduces the slices of source into input at the positions of index.
class IndexReduce {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const IndexReduceOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& index_opt, const Buffer& index,
                       const TensorOption& source_opt, const Buffer& source,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.scatter / torch.scatter_reduce along one dimension.
class Scatter {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const ScatterOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& index_opt, const Buffer& index,
                       const TensorOption& src_opt, const Buffer& src, const TensorOption& out_opt,
                       Buffer& out);
};

// torch.scatter_reduce with reduce="mean"; count is a scratch tensor of per-position counts.
class ScatterMean {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const ScatterMeanOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& index_opt, const Buffer& index,
                       const TensorOption& src_opt, const Buffer& src,
                       const TensorOption& count_opt, const Buffer& count,
                       const TensorOption& out_opt, Buffer& out);
};

// ONNX ScatterND: the last dimension of indices addresses a slice of the input.
class ScatterND {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const ScatterNDOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& indices_opt, const Buffer& indices,
                       const TensorOption& updates_opt, const Buffer& updates,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.select_scatter: out = input with out.select(dim, index) = src.
class SelectScatter {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const SelectScatterOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& src_opt, const Buffer& src, const TensorOption& out_opt,
                       Buffer& out);
};

}  // namespace nerva
