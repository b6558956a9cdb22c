#pragma once
// Shared pieces of the PyTorch backend: the one nerva session and queue behind the
// "privateuseone" device, the lock that serialises their use, and the binding of
// ATen tensors to nerva descriptors and buffers.

#include <ATen/ATen.h>

#include <mutex>
#include <string>
#include <vector>

#include "nerva/buffer.h"
#include "nerva/kernel.h"
#include "nerva/queue.h"
#include "nerva/session.h"
#include "nerva/tensor_option.h"

namespace nerva_torch {

constexpr c10::DeviceType kDeviceType = c10::DeviceType::PrivateUse1;

// The session and queue, opened on first use.
nerva::Session& GetSession();
nerva::Queue& GetQueue();
// Every use of the queue and of kernel creation holds this lock: autograd runs the
// backward pass on its own thread.
std::recursive_mutex& QueueMutex();

inline c10::Device Device() {
  return c10::Device(kDeviceType, 0);
}
inline bool OnDevice(const at::Tensor& t) {
  return t.device().type() == kDeviceType;
}

// The nerva element type of a torch type; float64 and the types nerva lacks raise an
// error naming `op`.
nerva::DataType ToNervaType(at::ScalarType type, const char* op);
// A new uninitialised device tensor.
at::Tensor Empty(at::IntArrayRef sizes, at::ScalarType type);
at::Tensor EmptyLike(const at::Tensor& t);
// The Buffer owning a device tensor's storage (null for a storage of no bytes).
nerva::Buffer StorageBuffer(const at::Tensor& t);

// A tensor as a nerva operand: its descriptor (rank 0 becomes [1]) and a buffer whose
// first byte is the tensor's first element.
struct Operand {
  nerva::TensorOption opt;
  nerva::Buffer buf;
};

// One operator invocation: binds its tensors, enqueues its kernels and writes back
// outputs that had to be staged. Holds the queue lock for its lifetime.
//
// A tensor whose storage offset the device cannot address by a sub-buffer (OpenCL
// aligns sub-buffers) is staged: its byte span is copied into a fresh buffer on the
// device, and an output's span is copied back after the kernels ran.
class Call {
 public:
  explicit Call(const char* op);
  ~Call();
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  // CPU inputs (wrapped scalars) are uploaded.
  Operand In(const at::Tensor& t);
  Operand Out(const at::Tensor& t);
  // An optional input left out: empty descriptor and null buffer.
  static Operand None();
  // A tensor given as `type`: converted on the device when its type differs.
  Operand InAs(const at::Tensor& t, at::ScalarType type);
  void Run(const nerva::Kernel& kernel);
  // Copies staged outputs back; called by the destructor too.
  void Finish();
  const char* op() const { return op_; }

 private:
  Operand Bind(const at::Tensor& t, bool write);

  struct Stage {
    nerva::Buffer root;
    long offset;
    nerva::Buffer temp;
    long bytes;
  };
  const char* op_;
  std::unique_lock<std::recursive_mutex> lock_;
  std::vector<Stage> writeback_;
  std::vector<at::Tensor> keep_;
};

// Converts `src` (same shape) into `dst` on the device: any strides, offsets and types.
void DeviceCopy(const at::Tensor& dst, const at::Tensor& src, const char* op);

// out = alpha * a @ b + beta * input (input may be null), batched or not; the operands
// may be strided views and broadcast batch dimensions.
void GemmInto(const char* name, const at::Tensor& a, const at::Tensor& b, const at::Tensor* input,
              float beta, float alpha, const at::Tensor& out);

// Copies `result` into a caller's .out tensor, resized to its shape.
at::Tensor& ToOut(at::Tensor& out, const at::Tensor& result, const char* op);

// Notes that `op` runs on the CPU: a one-time warning, or an error under
// NERVA_TORCH_NO_FALLBACK=1; recorded for nerva_torch.fallback_ops().
void NoteFallback(const std::string& op);

// Profiling (off by default): Call::Run and device copies wait for the device and add
// their time to the kernel counter; host transfers add theirs to the copy counter.
bool Profiling();
void AddKernelTime(double seconds);
void AddCopyTime(double seconds);

// Device generator state.
void ManualSeed(uint64_t seed);

}  // namespace nerva_torch
