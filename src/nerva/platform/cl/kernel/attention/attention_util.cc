#include "nerva/platform/cl/kernel/attention/attention_util.h"

#include <algorithm>
#include <stdexcept>

#include "nerva/platform/cl/kernel/norm/norm_util.h"
#include "nerva/platform/cl/kernel/reduce/reduce_util.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const View4& view) {
  cl_mem mem = static_cast<cl_mem>(view.buffer.UnsafeGetPtr());
  cl_int status = clSetKernelArg(kernel, index++, sizeof(cl_mem), &mem);
  if (status != CL_SUCCESS) return status;
  status = SetKernelArgsHelper(kernel, index, static_cast<cl_long>(view.offset));
  for (int i = 0; status == CL_SUCCESS && i < 4; ++i) {
    status = SetKernelArgsHelper(kernel, index, static_cast<cl_long>(view.strides[i]));
  }
  return status;
}

long Count(const std::vector<long>& sizes) {
  long n = 1;
  for (long s : sizes) n *= s;
  return n;
}

std::optional<View4> FoldView(const Tensor& tensor) {
  const auto& sizes = tensor.shape().sizes();
  const auto& strides = tensor.shape().strides();
  const size_t rank = sizes.size();
  View4 view;
  view.buffer = tensor.storage();
  view.offset = tensor.storage_offset() / static_cast<long>(tensor.option().item_size());
  for (size_t i = 0; i < rank && i < 3; ++i) {
    view.sizes[3 - i] = sizes[rank - 1 - i];
    view.strides[3 - i] = sizes[rank - 1 - i] == 1 ? 0 : strides[rank - 1 - i];
  }
  if (rank < 4) return view;
  // Fold the leading rank - 3 dimensions into one: each must step over the next.
  long size = 1, stride = 0;
  for (size_t i = rank - 3; i-- > 0;) {
    if (sizes[i] == 1) continue;
    if (size == 1) {
      size = sizes[i];
      stride = strides[i];
    } else if (strides[i] == stride * size) {
      size *= sizes[i];
    } else {
      return std::nullopt;
    }
  }
  for (size_t i = 0; i < rank - 3; ++i) {
    if (sizes[i] == 0) size = 0;
  }
  view.sizes[0] = size;
  view.strides[0] = stride;
  return view;
}

View4 ViewOf(KernelImpl& kernel, const std::shared_ptr<SessionImpl>& session, const Tensor& tensor,
             std::vector<Tensor>* keep) {
  if (auto view = FoldView(tensor)) return *view;
  Tensor copy = MakeContiguous(kernel, session, tensor);
  keep->push_back(copy);
  return *FoldView(copy);
}

View4 EmptyView(const std::shared_ptr<SessionImpl>& session, std::vector<Tensor>* keep) {
  Tensor t(TensorOption{Shape({1}), kFloat}, MakeScratchBuffer(session, 16), 0);
  keep->push_back(t);
  return *FoldView(t);
}

Tensor ScratchTensor(const std::shared_ptr<SessionImpl>& session, const std::vector<long>& sizes,
                     DataType dtype) {
  const long bytes =
      std::max(Count(sizes), 1L) * static_cast<long>(TypeTraitsHelper::GetSize(dtype));
  return Tensor(TensorOption{Shape(sizes), dtype}, MakeScratchBuffer(session, bytes), 0);
}

Tensor OptionalInput(const TensorOption& option, const Buffer& buffer) {
  return OptionalTensor(option, buffer);
}

void CheckGiven(const std::string& op, const std::string& arg, const Tensor& tensor) {
  CheckPresent(op, arg, tensor);
}

void CheckFloating(const std::string& op, const std::string& arg, const Tensor& tensor) {
  if (tensor.dtype() != kFloat && tensor.dtype() != kHalf) {
    throw std::invalid_argument(
        StrCat(op, ": unsupported ", arg, " type ", tensor.dtype(), " (float or half)"));
  }
}

void CheckShaped(const std::string& op, const std::string& arg, const Tensor& tensor,
                 const std::vector<long>& sizes, DataType dtype) {
  if (!tensor.defined()) {
    throw std::invalid_argument(
        StrCat(op, ": ", arg, " is undefined (expected ", Shape(sizes), ")"));
  }
  if (tensor.shape().sizes() != sizes) {
    throw std::runtime_error(StrCat(op, ": ", arg, " has shape ", Shape(tensor.shape().sizes()),
                                    ", expected ", Shape(sizes)));
  }
  if (tensor.dtype() != dtype) {
    throw std::invalid_argument(
        StrCat(op, ": ", arg, " has type ", tensor.dtype(), ", expected ", dtype));
  }
}

void CheckRank(const std::string& op, const std::string& arg, const Tensor& tensor, size_t min_rank,
               size_t max_rank) {
  const size_t rank = tensor.shape().sizes().size();
  if (rank < min_rank || rank > max_rank) {
    throw std::runtime_error(StrCat(op, ": ", arg, " ", Shape(tensor.shape().sizes()),
                                    " must have ", min_rank, " to ", max_rank, " dimensions"));
  }
}

void CheckIndexType(const std::string& op, const std::string& arg, const Tensor& tensor) {
  if (tensor.dtype() != kInt32 && tensor.dtype() != kInt64) {
    throw std::invalid_argument(
        StrCat(op, ": ", arg, " must be int32 or int64, got ", tensor.dtype()));
  }
}

}  // namespace cl
}  // namespace nerva
