#pragma once

// Option records of the general layout, creation, indexing, scatter and matrix-product
// operators.

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace nerva {

// How scattered or indexed values combine with what is already there.
enum class ScatterReduceType : int32_t {
  kNone = 0,  // overwrite
  kSum = 1,
  kProd = 2,
  kMean = 3,
  kAmax = 4,
  kAmin = 5,
};

// How EmbeddingBag combines the rows of one bag.
enum class EmbeddingBagMode : int32_t {
  kSum = 0,
  kMean = 1,
  kMax = 2,
};

// torch.arange(start, end, step).
struct ARangeOption {
  double start = 0.0;  // first value
  double end = 0.0;    // exclusive bound
  double step = 1.0;   // increment, may be negative
};

// torch.cat(tensors, dim).
struct ConcatOption {
  int dim = 0;  // the joined dimension
};

// Strided copy of a view: the first element of each side may lie inside its buffer.
struct CopyOption {
  long src_offset = 0;  // element offset of the source's first element in its buffer
  long dst_offset = 0;  // element offset of the destination's first element in its buffer
};

// torch.nn.functional.pixel_shuffle(input, upscale_factor).
struct DepthToSpaceOption {
  int block_size = 1;  // the upscale factor r
};

// torch.nn.functional.pixel_unshuffle(input, downscale_factor).
struct SpaceToDepthOption {
  int block_size = 1;  // the downscale factor r
};

// torch.nn.functional.embedding_bag.
struct EmbeddingBagOption {
  EmbeddingBagMode mode = EmbeddingBagMode::kMean;  // how the rows of a bag combine
  bool include_last_offset = false;  // offsets has one more entry, the end of the last bag
  long padding_idx = -1;             // rows of this index are skipped; negative: none
};

// Gradient of torch.nn.functional.embedding_bag.
struct EmbeddingBagBackwardOption {
  EmbeddingBagMode mode = EmbeddingBagMode::kMean;  // the forward's mode
  bool include_last_offset = false;                 // the forward's offsets convention
  long padding_idx = -1;            // rows of this index get no gradient; negative: none
  bool scale_grad_by_freq = false;  // scale by the inverse frequency of each index
};

// torch.eye(n, m).
struct EyeOption {
  long n = 1;  // rows
  long m = 1;  // columns
};

// torch.flip(input, dims).
struct FlipOption {
  std::vector<int> dims;  // reversed dimensions
};

// Gather of whole slices (torch.index_select generalised to any index rank).
struct GatherOption {
  int dim = 0;  // the indexed dimension; the output has index's sizes in its place
};

// torch.gather(input, dim, index).
struct GatherElementOption {
  int dim = 0;  // the dimension along which each index element selects
};

// input[..., index, ...] with the index tensor on one dimension.
struct IndexOption {
  int dim = 0;  // the indexed dimension
};

// torch.index_put(input, indices, values, accumulate).
struct IndexPutOption {
  int dim = 0;              // IndexPut only: the indexed dimension
  bool accumulate = false;  // add to the existing values instead of overwriting
};

// torch.index_reduce(input, dim, index, source, reduce, include_self).
struct IndexReduceOption {
  int dim = 0;                                          // the indexed dimension
  ScatterReduceType reduce = ScatterReduceType::kProd;  // kProd, kMean, kAmax or kAmin
  bool include_self = true;  // the input's values take part in the reduction
};

// torch.linspace(start, end, steps).
struct LinspaceOption {
  double start = 0.0;  // first value
  double end = 1.0;    // last value (inclusive)
  long steps = 1;      // number of values
};

// torch.matmul, and torch.addmm / baddbmm for the GEMM form.
struct MatMulOption {
  float alpha = 1.0f;           // GEMM form: multiplier of mat1 @ mat2
  float beta = 1.0f;            // GEMM form: multiplier of input
  bool transpose_mat1 = false;  // use mat1 with its last two dimensions swapped
  bool transpose_mat2 = false;  // use mat2 with its last two dimensions swapped
  // Fused stages, available on the tensor-core path only.
  bool fuse_relu = false;                            // relu on the result
  std::optional<std::pair<int32_t, float>> rescale;  // (integer parameter, scale)
};

// torch.embedding_renorm_(weight, indices, max_norm, norm_type), in place on weight.
struct MaxNormOption {
  double max_norm = 1.0;   // rows with a larger norm are scaled down to it
  double norm_type = 2.0;  // order p of the norm
};

// Tensor.repeat(repeats) and torch.repeat_interleave(input, repeats, dim).
struct RepeatOption {
  std::vector<long> repeats;  // Repeat: multiple of every dimension
  int dim = 0;                // Repeat_Interleave: the repeated dimension
};

// torch.roll(input, shifts, dims).
struct RollOption {
  std::vector<long> shifts;  // shift of each rolled dimension
  std::vector<int> dims;     // rolled dimensions; empty rolls the flattened tensor
};

// torch.scatter(input, dim, index, src, reduce) / torch.scatter_reduce.
struct ScatterOption {
  int dim = 0;                                          // the indexed dimension
  ScatterReduceType reduce = ScatterReduceType::kNone;  // combination with the input
  bool include_self = true;                             // reductions include the input's values
};

// torch.scatter_reduce(reduce="mean").
struct ScatterMeanOption {
  int dim = 0;               // the indexed dimension
  bool include_self = true;  // the input's values count in the mean
};

// ONNX ScatterND(data, indices, updates, reduction).
struct ScatterNDOption {
  ScatterReduceType reduction = ScatterReduceType::kNone;  // kNone, kSum, kProd, kAmax, kAmin
};

// torch.select_scatter(input, src, dim, index).
struct SelectScatterOption {
  int dim = 0;     // the selected dimension
  long index = 0;  // position on it; negative counts from the end
};

// torch.split(input, split_sizes, dim).
struct SplitOption {
  std::vector<long> split_sizes;  // size of each output along dim
  int dim = 0;                    // the split dimension
};

}  // namespace nerva
