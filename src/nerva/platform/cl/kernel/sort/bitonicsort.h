#pragma once

// Bitonic sort along one dimension ("BitonicSort", "BitonicSortWithIndices").
//
// Keys are compared as float whatever the element type (integers beyond 2^24
// compare after rounding). Each row is extended to a power of two with the
// filler key 2147483647.0f (ascending) or -2147483647.0f (descending), which
// is never stored; real keys equal to or beyond the filler (infinities, huge
// integers) are not kept apart from it, and NaN is never exchanged by its own
// comparator, so rows holding NaN are not fully sorted; a filler left inside
// such a row's result yields an index at or past the row's end. The sort is
// not stable.
//
// Rows whose extended length is at most 2048 sort in one launch in local
// memory ("bitonicsort_noloop.cl"); longer rows take one launch per pass
// ("bitonicsort.cl") through the scratch tensors. On CPU devices one work item
// per row runs the same network in private memory for rows of 16 to 2048
// extended keys ("bitonicsort_rows.cl"), and longer rows along the innermost
// axis run their passes below distance 2048 there, a block of 2048 positions
// per work item, between the per-pass launches; the results are the same.
// The scratch tensors are required either way: shaped like the input with
// the sorted dimension of length 2^(n+1), n = max(ceil(log2(length / 2)), 0),
// temp of the input's type or float, temp_indices int32 or int64. All
// tensors are contiguous; values have the input's type and shape, indices
// int64 or int32. The output may be the input.

#include <memory>

#include "nerva/kernel/reduce_option.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

// n = max(ceil(log2(length / 2)), 0): the last stage of the network.
int BitonicStages(long length);
// The extended (power-of-two) row length 2^(n+1).
long BitonicExtendedLength(long length);

// The tensors of one sort; indices and temp_indices undefined for values only.
struct BitonicSortTensors {
  Tensor input, temp, out, temp_indices, indices;
  int axis = -1;
  bool descending = false;
};

// Checks every tensor of a sort named `op` (std::runtime_error for shapes,
// std::invalid_argument for types, std::out_of_range for the axis).
void VerifyBitonicSort(const std::string& op, const BitonicSortTensors& t);
// Appends the sort's units to `kernel` (none for an empty input).
void AppendBitonicSort(KernelImpl& kernel, const std::shared_ptr<SessionImpl>& session,
                       const BitonicSortTensors& t);

class BitonicSortKernel : public KernelImpl {
 public:
  BitonicSortKernel(const BitonicSortOption& option, const TensorOption& input_opt,
                    const Buffer& input, const TensorOption& temp_opt, Buffer& temp,
                    const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 protected:
  BitonicSortKernel(const std::string& name, const BitonicSortOption& option,
                    const TensorOption& input_opt, const Buffer& input,
                    const TensorOption& temp_opt, Buffer& temp, const TensorOption& out_opt,
                    Buffer& out);
  BitonicSortTensors tensors_;
};

class BitonicSortWithIndicesKernel : public BitonicSortKernel {
 public:
  BitonicSortWithIndicesKernel(const BitonicSortOption& option, const TensorOption& input_opt,
                               const Buffer& input, const TensorOption& temp_opt, Buffer& temp,
                               const TensorOption& out_opt, Buffer& out,
                               const TensorOption& temp_indices_opt, Buffer& temp_indices,
                               const TensorOption& indices_opt, Buffer& indices);
};

}  // namespace cl
}  // namespace nerva
