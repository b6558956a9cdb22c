#include "nerva/argument_check.h"

#include <limits>
#include <stdexcept>

#include "nerva/buffer.h"
#include "nerva/tensor.h"
#include "nerva/util.h"

namespace nerva {
namespace {

long ItemSize(DataType dtype) {
  // A bad type is the kernel's Verify to report; it reaches no bytes here.
  if (dtype < kHalf || dtype > kBool) return 0;
  return static_cast<long>(TypeTraitsHelper::GetSize(dtype));
}

std::string Describe(const TensorOption& option, long offset) {
  return StrCat(option.dtype, " ", option.shape, " strides ", option.shape.strides(),
                " at byte offset ", offset);
}

class ArgumentChecker {
 public:
  ArgumentChecker(const std::string& op, const ForeignBufferCheck& foreign, TensorLayout layout)
      : op_(op), foreign_(foreign), layout_(layout) {}

  void CheckTensor(size_t index, const TensorOption& option, long offset, const Buffer& buffer) {
    CheckBuffer(index, buffer);
    const std::string problem = DescribeOutOfBuffer(option, offset, buffer, layout_);
    if (!problem.empty()) Fail(index, problem);
  }

  void CheckBuffer(size_t index, const Buffer& buffer) {
    if (!buffer || !foreign_) return;
    const std::string problem = foreign_(buffer);
    if (!problem.empty()) Fail(index, StrCat("its buffer ", problem));
  }

  void CheckTensor(size_t index, const Tensor& tensor) {
    if (tensor.impl())
      CheckTensor(index, tensor.option(), tensor.storage_offset(), tensor.storage());
  }

 private:
  [[noreturn]] void Fail(size_t index, const std::string& problem) const {
    throw std::invalid_argument(StrCat(op_, ": argument ", index + 1, " ", problem));
  }

  const std::string& op_;
  const ForeignBufferCheck& foreign_;
  TensorLayout layout_;
};

template <typename T>
const T& As(const ArgumentRef& arg) {
  return *static_cast<const T*>(arg.value);
}

}  // namespace

ByteExtent TensorByteExtent(const std::vector<long>& sizes, const std::vector<long>& byte_strides,
                            long item_size, long offset) {
  __int128 low = offset;
  __int128 high = offset;
  for (size_t i = 0; i < sizes.size(); ++i) {
    if (sizes[i] < 0) throw std::invalid_argument(StrCat("Invalid tensor size: ", sizes));
    if (sizes[i] == 0) return {offset, offset};
    const long stride = i < byte_strides.size() ? byte_strides[i] : 0;
    const __int128 reach = static_cast<__int128>(sizes[i] - 1) * stride;
    (reach < 0 ? low : high) += reach;
  }
  if (sizes.empty()) return {offset, offset};
  high += item_size;
  constexpr __int128 kMax = std::numeric_limits<long>::max();
  if (low < -kMax || high > kMax) {
    throw std::invalid_argument(StrCat("Tensor of sizes ", sizes, " and byte strides ",
                                       byte_strides, " reaches past 64-bit byte offsets"));
  }
  return {static_cast<long>(low), static_cast<long>(high)};
}

std::string DescribeOutOfBuffer(const TensorOption& option, long offset, const Buffer& buffer,
                                TensorLayout layout) {
  const long item = ItemSize(option.dtype);
  ByteExtent extent;
  try {
    std::vector<long> byte_strides = layout == TensorLayout::kDense
                                         ? Shape(option.shape.sizes()).strides()
                                         : option.shape.strides();
    for (long& s : byte_strides) {
      if (__builtin_mul_overflow(s, item, &s)) throw std::invalid_argument("byte strides overflow");
    }
    extent = TensorByteExtent(option.shape.sizes(), byte_strides, item, offset);
  } catch (const std::exception& error) {
    return StrCat("(", Describe(option, offset), ") is invalid: ", error.what());
  }
  if (extent.first == extent.last) return "";
  if (!buffer) {
    return StrCat("(", Describe(option, offset), ") reaches ", extent.last - extent.first,
                  " bytes, but its buffer is null");
  }
  if (extent.first < 0 || extent.last > buffer.size()) {
    return StrCat("(", Describe(option, offset), ") reaches bytes [", extent.first, ", ",
                  extent.last, "), but its buffer holds ", buffer.size(), " bytes");
  }
  return "";
}

void CheckKernelArguments(const std::string& op, const std::vector<ArgumentRef>& args,
                          const ForeignBufferCheck& foreign, TensorLayout layout) {
  ArgumentChecker checker(op, foreign, layout);
  for (size_t i = 0; i < args.size(); ++i) {
    const ArgumentRef& arg = args[i];
    const bool paired = i + 1 < args.size();
    switch (arg.kind) {
      case ArgumentRef::kTensor:
        checker.CheckTensor(i, As<Tensor>(arg));
        break;
      case ArgumentRef::kTensors:
        for (const Tensor& tensor : As<std::vector<Tensor>>(arg)) checker.CheckTensor(i, tensor);
        break;
      case ArgumentRef::kTensorOption:
        if (paired && args[i + 1].kind == ArgumentRef::kBuffer) {
          checker.CheckTensor(i, As<TensorOption>(arg), 0, As<Buffer>(args[i + 1]));
        }
        break;
      case ArgumentRef::kTensorOptions:
        if (paired && args[i + 1].kind == ArgumentRef::kBuffers) {
          const auto& options = As<std::vector<TensorOption>>(arg);
          const auto& buffers = As<std::vector<Buffer>>(args[i + 1]);
          for (size_t k = 0; k < options.size() && k < buffers.size(); ++k) {
            checker.CheckTensor(i, options[k], 0, buffers[k]);
          }
        }
        break;
      case ArgumentRef::kBuffer:
        checker.CheckBuffer(i, As<Buffer>(arg));
        break;
      case ArgumentRef::kBuffers:
        for (const Buffer& buffer : As<std::vector<Buffer>>(arg)) checker.CheckBuffer(i, buffer);
        break;
      case ArgumentRef::kOther:
        break;
    }
  }
}

}  // namespace nerva
