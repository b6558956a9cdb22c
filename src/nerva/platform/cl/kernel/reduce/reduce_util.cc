#include "nerva/platform/cl/kernel/reduce/reduce_util.h"

#include <algorithm>
#include <stdexcept>

#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/type_traits.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {
std::string ListText(const std::vector<int>& values) {
  std::string text = "[";
  for (size_t i = 0; i < values.size(); ++i) text += (i ? ", " : "") + std::to_string(values[i]);
  return text + "]";
}
std::string SizesText(const std::vector<long>& sizes) {
  return StrCat(Shape(sizes));
}
}  // namespace

AxisFold FoldAxes(const std::vector<long>& sizes, int first, int last) {
  AxisFold fold;
  fold.outer = Product(sizes, 0, first);
  fold.reduced = Product(sizes, first, last + 1);
  fold.inner = Product(sizes, last + 1, sizes.size());
  return fold;
}

int NormalizeAxis(const std::string& op, int axis, size_t rank) {
  const int r = static_cast<int>(rank);
  if (axis < -r || axis >= r) {
    throw std::out_of_range(
        StrCat(op, ": axis ", axis, " is out of range for a tensor of rank ", rank));
  }
  return axis < 0 ? axis + r : axis;
}

std::vector<int> NormalizeAxes(const std::string& op, const std::vector<int>& axes, size_t rank) {
  std::vector<int> out;
  if (axes.empty()) {
    for (size_t i = 0; i < rank; ++i) out.push_back(static_cast<int>(i));
    return out;
  }
  for (int axis : axes) out.push_back(NormalizeAxis(op, axis, rank));
  std::sort(out.begin(), out.end());
  if (std::adjacent_find(out.begin(), out.end()) != out.end()) {
    throw std::invalid_argument(StrCat(op, ": axes ", ListText(axes), " repeat an axis"));
  }
  return out;
}

bool AxesConsecutive(const std::vector<int>& axes) {
  for (size_t i = 1; i < axes.size(); ++i) {
    if (axes[i] != axes[i - 1] + 1) return false;
  }
  return true;
}

std::vector<long> ReducedSizes(const std::vector<long>& sizes, const std::vector<int>& axes,
                               bool keepdim) {
  std::vector<long> out;
  for (size_t i = 0; i < sizes.size(); ++i) {
    const bool reduced = std::find(axes.begin(), axes.end(), static_cast<int>(i)) != axes.end();
    if (!reduced) {
      out.push_back(sizes[i]);
    } else if (keepdim) {
      out.push_back(1);
    }
  }
  if (out.empty()) out.push_back(1);
  return out;
}

long Product(const std::vector<long>& sizes, size_t begin, size_t end) {
  long product = 1;
  for (size_t i = begin; i < end && i < sizes.size(); ++i) product *= sizes[i];
  return product;
}

long ElementCount(const Tensor& tensor) {
  const auto& sizes = tensor.shape().sizes();
  return sizes.empty() ? 0 : Product(sizes, 0, sizes.size());
}

void CheckDefined(const std::string& op, const std::string& arg, const Tensor& tensor) {
  if (!tensor.defined()) throw std::invalid_argument(StrCat(op, ": ", arg, " is undefined"));
}

void CheckContiguous(const std::string& op, const std::string& arg, const Tensor& tensor) {
  if (!tensor.is_contiguous()) {
    throw std::runtime_error(StrCat(op, ": ", arg, " must be contiguous, got sizes ",
                                    tensor.shape(), " with strides ",
                                    SizesText(tensor.shape().strides())));
  }
}

void CheckSizes(const std::string& op, const std::string& arg, const Tensor& tensor,
                const std::vector<long>& expected, const std::string& what) {
  if (tensor.shape().sizes() != expected) {
    throw std::runtime_error(StrCat(op, ": ", arg, " has shape ", tensor.shape(), " but ", what,
                                    " gives ", SizesText(expected)));
  }
}

void CheckSameSizes(const std::string& op, const std::string& arg, const Tensor& tensor,
                    const std::string& other_arg, const Tensor& other) {
  if (tensor.shape().sizes() != other.shape().sizes()) {
    throw std::runtime_error(StrCat(op, ": ", arg, " shape ", tensor.shape(), " does not match ",
                                    other_arg, " shape ", other.shape()));
  }
}

void CheckType(const std::string& op, const std::string& arg, DataType type, bool allow_integral) {
  const bool floating = type == kFloat || type == kHalf;
  const bool integral =
      type >= kInt8 && type <= kBool && type != kFloat8_e4m3fn && type != kFloat8_e5m2;
  if (!floating && !(allow_integral && integral)) {
    throw std::invalid_argument(
        StrCat(op, ": unsupported ", arg, " type ", static_cast<DataType>(type)));
  }
}

void CheckIndexType(const std::string& op, const std::string& arg, DataType type) {
  if (type != kInt64 && type != kInt32) {
    throw std::invalid_argument(
        StrCat(op, ": ", arg, " must be DataType::kInt64 or ", "DataType::kInt32, got ", type));
  }
}

ClTensor ContiguousView(const Tensor& tensor, const std::vector<long>& sizes, uint32_t step) {
  return ClTensor(Shape(sizes), tensor.dtype(), tensor.storage(), {step},
                  static_cast<uint32_t>(tensor.storage_offset()), true);
}

Tensor MakeContiguous(KernelImpl& kernel, const std::shared_ptr<SessionImpl>& session,
                      const Tensor& tensor) {
  if (tensor.is_contiguous()) return tensor;
  const auto& sizes = tensor.shape().sizes();
  if (sizes.size() > 8) {
    throw std::invalid_argument(StrCat(kernel.name(), ": input rank ", sizes.size(), " exceeds 8"));
  }
  const long count = ElementCount(tensor);
  const long item = static_cast<long>(TypeTraitsHelper::GetSize(tensor.dtype()));
  Tensor copy(TensorOption{Shape(sizes), tensor.dtype()},
              MakeScratchBuffer(session, std::max(count, 1L) * item), 0);
  if (count == 0) return copy;
  LongVector8 size_arg{}, stride_arg{};
  const std::vector<long> strides = tensor.strides_in_bytes();
  for (size_t i = 0; i < sizes.size(); ++i) {
    size_arg.value.s[i] = sizes[i];
    stride_arg.value.s[i] = strides[i];
  }
  BuildOption options;
  options.AddDefinitionAutoType("ELEM_SIZE", item).AddOption("-DMAKE_CONTIGUOUS");
  kernel
      .MakeSubKernel(session, "Reduce::contiguous", {"common.h", "reduce.h", "reduce.cl"}, options,
                     "make_contiguous")
      ->SetArgs(tensor.storage(), copy.storage(), static_cast<uint32_t>(tensor.storage_offset()),
                static_cast<int>(sizes.size()), size_arg, stride_arg)
      .SetGlobal({static_cast<size_t>(count)});
  return copy;
}

ColumnSplit SplitColumns(const SessionImpl& session, long items, long height) {
  constexpr long kItemsPerUnit = 2048, kMinRows = 32;
  const long target = static_cast<long>(session.compute_units()) * kItemsPerUnit;
  const long wanted = (target + std::max(items, 1L) - 1) / std::max(items, 1L);
  ColumnSplit split;
  split.splits = std::max(1L, std::min(wanted, height / kMinRows));
  split.rows = (height + split.splits - 1) / split.splits;
  split.splits = split.rows ? (height + split.rows - 1) / split.rows : 1;
  return split;
}

ColumnSplit SplitRows(const SessionImpl& session, long outer, long height) {
  constexpr long kItemsPerUnit = 4, kMinRows = 16;
  const long target = static_cast<long>(session.compute_units()) * kItemsPerUnit;
  ColumnSplit split;
  split.splits = std::max(1L, std::min((target + outer - 1) / outer, height / kMinRows));
  split.rows = (height + split.splits - 1) / split.splits;
  split.splits = split.rows ? (height + split.rows - 1) / split.rows : 1;
  return split;
}

Buffer MakeScratchBuffer(const std::shared_ptr<SessionImpl>& session, long bytes) {
  std::shared_ptr<ISessionImpl> base = session;
  MemoryFlags flags = kMemReadWrite;
  long size = std::max(bytes, 1L);
  void* host = nullptr;
  return base->MakeBuffer("MakeBuffer", base, flags, size, host);
}

}  // namespace cl
}  // namespace nerva
