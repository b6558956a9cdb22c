#pragma once

// The k largest or smallest elements along one dimension ("TopK"), with
// their positions, always in order (largest first for largest, smallest
// first otherwise), whatever `sorted` says.
//
// Keys are compared as float (integers beyond 2^24 after rounding); values
// keep the input's type exactly. Rows of up to 2048 elements are sorted whole
// in local memory ("topk_axis0"/"topk_axis1"); longer rows are walked in
// segments of 1024 elements that are merged into the running best 512
// ("_bitnoic_segment"), so there k is at most 512; a larger k on such rows
// sorts them in full (BitonicSortWithIndices into scratch memory that the
// kernel allocates and keeps) and copies the first k ("topk_head").
// NaN keys are never exchanged by their comparator: rows holding NaN are not
// ordered reliably, and a filler key that stays among the first k reports
// position 0.
//
// input: contiguous float, half or integer tensor; values: the input's type
// and shape with the dimension of size k; indices: int64 or int32, same shape.
// k must lie in [0, length]; k = 0 or an empty input gives a kernel with no work.

#include <memory>
#include <vector>

#include "nerva/kernel/reduce_option.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

class TopKKernel : public KernelImpl {
 public:
  TopKKernel(const TopKOption& option, const TensorOption& input_opt, const Buffer& input,
             const TensorOption& values_opt, Buffer& values, const TensorOption& indices_opt,
             Buffer& indices);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

  struct RowLayout;

 private:
  // Large k on long rows: a full BitonicSortWithIndices into scratch the
  // kernel owns, then the first k entries.
  void CompileFullSort(const std::shared_ptr<SessionImpl>& session, const RowLayout& l);

  TopKOption option_;
  Tensor input_, values_, indices_;
  std::vector<Tensor> scratch_;
};

}  // namespace cl
}  // namespace nerva
