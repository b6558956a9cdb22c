#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "nerva/buffer.h"
#include "nerva/kernel.h"
#include "nerva/platform/cl/cl_api.h"
#include "nerva/platform/cl/event_impl.h"
#include "nerva/shape.h"
#include "nerva/tensor.h"

namespace nerva {
namespace cl {

class SessionImpl;
class QueueImpl;
class BuildOption;

// The device view of a tensor: memory handle, per device dimension (x first)
// a byte stride and a byte step, and the byte offset of the first element.
// It is passed as 2 * rank + 2 kernel arguments, matching DECL_TENSOR<rank>D.
//
// Construction checks what the device will address: the buffer must be an
// OpenCL buffer holding every byte the view reaches (std::invalid_argument),
// and every offset, stride and step must fit its 32-bit field
// (std::runtime_error); nothing is truncated.
class ClTensor {
 public:
  // `steps`: elements one work item advances per device dimension (x first,
  // missing entries are 1). `strides`: explicit byte strides in tensor order;
  // contiguous strides when absent. `reversed` puts the innermost dimension on x.
  ClTensor(const Shape& shape, DataType dtype, const Buffer& buffer,
           const std::vector<uint32_t>& steps, uint32_t offset, bool reversed,
           std::optional<std::vector<long>> strides = std::nullopt);
  // A tensor with its own strides and offset; `step` applies to the innermost dimension.
  explicit ClTensor(const Tensor& tensor, uint32_t step = 1, bool reversed = true);

  int32_t dtype() const { return dtype_; }
  cl_mem mem() const { return mem_; }
  const Shape& shape() const { return shape_; }
  const std::vector<uint32_t>& strides() const { return strides_; }
  const std::vector<uint32_t>& steps() const { return steps_; }
  uint32_t offset() const { return offset_; }
  bool reversed() const { return reversed_; }
  const Buffer& buffer() const { return buffer_; }
  // Number of kernel arguments this tensor occupies.
  unsigned arg_count() const { return 2 * static_cast<unsigned>(strides_.size()) + 2; }

 private:
  int32_t dtype_ = -1;
  cl_mem mem_ = nullptr;
  Shape shape_;
  std::vector<uint32_t> strides_;
  std::vector<uint32_t> steps_;
  uint32_t offset_ = 0;
  bool reversed_ = false;
  Buffer buffer_;  // keeps the memory alive while the view is bound
};

// `bytes` of local memory, bound as a null argument of that size.
struct LocalMemory {
  size_t bytes;
};

// One argument per call, starting at `index`, which is advanced past it.
cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const Buffer& buffer);
cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const ClTensor& tensor);
cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const std::vector<ClTensor>& tensors);
inline cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const LocalMemory& local) {
  return clSetKernelArg(kernel, index++, local.bytes, nullptr);
}
template <typename T, std::enable_if_t<std::is_arithmetic_v<T>, int> = 0>
cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const T& value) {
  return clSetKernelArg(kernel, index++, sizeof(T), &value);
}

inline cl_int SetKernelArgsHelper(cl_kernel /*kernel*/, unsigned& /*index*/) {
  return CL_SUCCESS;
}
// Sets `first`, then the rest; the first non-zero status stops it.
template <typename First, typename... Rest>
cl_int SetKernelArgsHelper(cl_kernel kernel, unsigned& index, const First& first,
                           const Rest&... rest) {
  cl_int status = SetKernelArg(kernel, index, first);
  if (status != CL_SUCCESS) return status;
  return SetKernelArgsHelper(kernel, index, rest...);
}
template <typename... Args>
cl_int SetKernelArgs(cl_kernel kernel, unsigned start, const Args&... args) {
  return SetKernelArgsHelper(kernel, start, args...);
}

// A kernel argument's memory, kept by the unit it is bound to: OpenCL does not
// retain memory objects set as arguments, and views (sub-buffers) made while
// compiling would otherwise be released before the kernel runs.
inline void KeepBound(std::vector<Buffer>& keep, const Buffer& buffer) {
  keep.push_back(buffer);
}
inline void KeepBound(std::vector<Buffer>& keep, const ClTensor& tensor) {
  keep.push_back(tensor.buffer());
}
inline void KeepBound(std::vector<Buffer>& keep, const std::vector<ClTensor>& tensors) {
  for (const auto& tensor : tensors) keep.push_back(tensor.buffer());
}
// Values and local-memory sizes hold no memory.
template <typename T>
void KeepBound(std::vector<Buffer>& /*keep*/, const T& /*value*/) {}

// One device kernel with its bound arguments and work ranges.
class KernelUnit {
 public:
  KernelUnit(const std::string& kernel_name, cl_program program);

  // Sets all arguments from index 0 upward.
  template <typename... Args>
  KernelUnit& SetArgs(const Args&... args) {
    arg_index_ = 0;
    CheckArgs(SetKernelArgsHelper(kernel_(), arg_index_, args...));
    (KeepBound(bound_, args), ...);
    return *this;
  }
  // Sets the next argument after those already set.
  template <typename T>
  KernelUnit& SetArg(const T& arg) {
    CheckArgs(SetKernelArg(kernel_(), arg_index_, arg));
    KeepBound(bound_, arg);
    return *this;
  }
  // Global range; dimension i is divided (rounding up) by steps[i].
  KernelUnit& SetGlobal(const std::vector<size_t>& global, const std::vector<size_t>& steps = {});
  // Local range; the global range is rounded up to a multiple of it.
  KernelUnit& SetLocal(const std::vector<size_t>& local);
  static ::cl::NDRange VectorToNDRange(const std::vector<size_t>& sizes);

  const std::string& name() const { return name_; }
  const ::cl::Kernel& kernel() const { return kernel_; }
  const ::cl::NDRange& global() const { return global_; }
  const ::cl::NDRange& local() const { return local_; }
  unsigned arg_count() const { return arg_index_; }

 private:
  void CheckArgs(cl_int status) const;

  std::string name_;
  ::cl::Kernel kernel_;
  ::cl::NDRange global_;
  ::cl::NDRange local_;
  std::vector<size_t> global_sizes_;
  unsigned arg_index_ = 0;
  std::vector<Buffer> bound_;  // memory of every argument bound so far
};

// Base of every OpenCL operator kernel. A kernel verifies its arguments,
// builds its units in Compile (MakeSubKernel + SetArgs + SetGlobal), and the
// queue enqueues the units in order, each waiting on the previous one.
class KernelImpl : public IKernelImpl, public std::enable_shared_from_this<KernelImpl> {
 public:
  explicit KernelImpl(std::string name) : name_(std::move(name)) {}

  std::string name() const override { return name_; }
  virtual void Compile(std::shared_ptr<SessionImpl> session) = 0;
  virtual void BeforeEnqueue(std::shared_ptr<QueueImpl> /*queue*/,
                             const ClEventVector& /*wait_list*/) const {}
  virtual void AfterEnqueue(std::shared_ptr<QueueImpl> /*queue*/,
                            const ClEventVector& /*wait_list*/) const {}

  const std::vector<std::shared_ptr<KernelUnit>>& units() const { return units_; }

  // The session the kernel was compiled for; queues of other sessions refuse it.
  void BindSession(const std::shared_ptr<SessionImpl>& session) { session_ = session; }
  const std::weak_ptr<SessionImpl>& session() const { return session_; }

  // Fetches or builds the program "program_name(options)" in the session's
  // cache, appends a unit for `kernel_name` and returns it.
  std::shared_ptr<KernelUnit> MakeSubKernel(std::shared_ptr<SessionImpl> session,
                                            const std::string& program_name,
                                            const std::vector<std::string>& sources,
                                            const BuildOption& options,
                                            const std::string& kernel_name);
  // Appends the units of a compiled kernel (composite kernels run their parts
  // in order as one kernel).
  void AppendUnits(const KernelImpl& part);

 private:
  std::string name_;
  std::vector<std::shared_ptr<KernelUnit>> units_;
  std::weak_ptr<SessionImpl> session_;
};

// Names the operator being created on this thread in the frame's messages
// (ClTensor's checks) for the lifetime of the guard.
class KernelNameScope {
 public:
  explicit KernelNameScope(const std::string& name);
  ~KernelNameScope();
  KernelNameScope(const KernelNameScope&) = delete;
  KernelNameScope& operator=(const KernelNameScope&) = delete;
  // The innermost name in scope, or "CL tensor" outside any.
  static const std::string& Current();

 private:
  const std::string* previous_;
};

}  // namespace cl
}  // namespace nerva
