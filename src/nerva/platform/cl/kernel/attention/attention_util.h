#pragma once

// Shared host pieces of the attention kernels: 4-D element views of tensors
// (batch, head, row, column) bound as (pointer, offset, four strides), and the
// argument checks the operators share.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/tensor.h"

namespace nerva {
namespace cl {

// A tensor seen as [d0, d1, d2, d3] with element strides; bound as a typed
// pointer, the element offset and the four strides (all long), matching
// DECL_VIEW in "attention.h".
struct View4 {
  Buffer buffer;
  long offset = 0;
  long sizes[4] = {1, 1, 1, 1};
  long strides[4] = {0, 0, 0, 0};
};
cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const View4& view);
inline void KeepBound(std::vector<Buffer>& keep, const View4& view) {
  keep.push_back(view.buffer);
}

// `tensor` (rank 1 to 4 + folded leading dimensions) as a 4-D view: its
// trailing `rank` dimensions right-aligned, missing leading ones of size 1,
// extra leading ones folded into the first. nullopt when they do not fold.
std::optional<View4> FoldView(const Tensor& tensor);
// FoldView, or a contiguous copy made by a unit of `kernel` when the leading
// dimensions do not fold. The copy is kept alive in `keep`.
View4 ViewOf(KernelImpl& kernel, const std::shared_ptr<SessionImpl>& session, const Tensor& tensor,
             std::vector<Tensor>* keep);
// A view of nothing (a one-element scratch buffer), for absent tensors.
View4 EmptyView(const std::shared_ptr<SessionImpl>& session, std::vector<Tensor>* keep);

// A contiguous device tensor of `sizes` for a kernel's intermediate results.
Tensor ScratchTensor(const std::shared_ptr<SessionImpl>& session, const std::vector<long>& sizes,
                     DataType dtype);

// An input or output the caller may leave out (empty shape or null buffer):
// undefined then.
Tensor OptionalInput(const TensorOption& option, const Buffer& buffer);
// A tensor the caller must give, else std::invalid_argument "<op>: <arg> is undefined".
void CheckGiven(const std::string& op, const std::string& arg, const Tensor& tensor);

// A float or half tensor, else std::invalid_argument "<op>: unsupported <arg> type ...".
void CheckFloating(const std::string& op, const std::string& arg, const Tensor& tensor);
// A given tensor with exactly `sizes` and `dtype` (any strides), else
// std::runtime_error / std::invalid_argument naming the expected shape and type.
void CheckShaped(const std::string& op, const std::string& arg, const Tensor& tensor,
                 const std::vector<long>& sizes, DataType dtype);
// Rank at least `min_rank`, else std::runtime_error.
void CheckRank(const std::string& op, const std::string& arg, const Tensor& tensor, size_t min_rank,
               size_t max_rank = 8);
// An integer index tensor (int32 or int64), else std::invalid_argument.
void CheckIndexType(const std::string& op, const std::string& arg, const Tensor& tensor);

// The element count of `sizes`.
long Count(const std::vector<long>& sizes);

}  // namespace cl
}  // namespace nerva
