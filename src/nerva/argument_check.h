#pragma once

#include <functional>
#include <string>
#include <type_traits>
#include <vector>

namespace nerva {

class Buffer;
class Tensor;
struct TensorOption;

// One packed call argument as the memory checks see it: its kind and address.
struct ArgumentRef {
  enum Kind { kOther, kTensor, kTensorOption, kBuffer, kTensors, kTensorOptions, kBuffers };
  Kind kind = kOther;
  const void* value = nullptr;
};

template <typename T>
ArgumentRef MakeArgumentRef(const T& value) {
  using V = std::decay_t<T>;
  ArgumentRef::Kind kind = ArgumentRef::kOther;
  if constexpr (std::is_same_v<V, Tensor>) kind = ArgumentRef::kTensor;
  if constexpr (std::is_same_v<V, TensorOption>) kind = ArgumentRef::kTensorOption;
  if constexpr (std::is_same_v<V, Buffer>) kind = ArgumentRef::kBuffer;
  if constexpr (std::is_same_v<V, std::vector<Tensor>>) kind = ArgumentRef::kTensors;
  if constexpr (std::is_same_v<V, std::vector<TensorOption>>) kind = ArgumentRef::kTensorOptions;
  if constexpr (std::is_same_v<V, std::vector<Buffer>>) kind = ArgumentRef::kBuffers;
  return {kind, static_cast<const void*>(&value)};
}

// The bytes a tensor can reach: [first, last) inside its buffer. A tensor with
// no elements reaches nothing (first == last == offset).
struct ByteExtent {
  long first = 0;
  long last = 0;
};

// Extent of `sizes` with `byte_strides` and elements of `item_size` bytes
// starting `offset` bytes into the buffer. Throws std::invalid_argument on a
// negative size or an extent that does not fit 64 bits.
ByteExtent TensorByteExtent(const std::vector<long>& sizes, const std::vector<long>& byte_strides,
                            long item_size, long offset);

// How a platform lays a described tensor into its buffer: through the
// descriptor's strides, or dense and row-major whatever the strides say.
enum class TensorLayout { kStrided, kDense };

// Empty when a tensor of `option` at `offset` lies inside `buffer` (a null
// buffer only under a tensor without elements), else what is wrong.
std::string DescribeOutOfBuffer(const TensorOption& option, long offset, const Buffer& buffer,
                                TensorLayout layout = TensorLayout::kStrided);

// Says why a buffer cannot be used by this platform or session (empty: it can).
using ForeignBufferCheck = std::function<std::string(const Buffer&)>;

// Checks every tensor argument of a new kernel (a Tensor, or a TensorOption
// followed by its Buffer, and their vector forms) against its buffer, and every
// buffer against `foreign`. Throws std::invalid_argument naming the operator,
// the argument (1-based, after the queue), the extent and the buffer size.
void CheckKernelArguments(const std::string& op, const std::vector<ArgumentRef>& args,
                          const ForeignBufferCheck& foreign,
                          TensorLayout layout = TensorLayout::kStrided);

}  // namespace nerva
