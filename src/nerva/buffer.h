#pragma once

#include <cstdint>
#include <memory>

namespace nerva {

// Allocation flags, passed unchanged to the platform allocator.
enum MemoryFlags : uint32_t {
  kMemDefault = 0,     // device may read and write (the platforms' default)
  kMemWriteOnly = 1,   // kernels only write the buffer
  kMemReadWrite = 2,   // kernels read and write the buffer
  kMemUseHostPtr = 4,  // with a host pointer: use that memory instead of copying it
};

class Buffer;

// Device memory of one platform.
class IBufferImpl {
 public:
  virtual ~IBufferImpl() = default;
  // Size in bytes.
  virtual long size() const = 0;
  // The platform's native object (OpenCL: the cl_mem) or host pointer (CPU).
  virtual void* UnsafeGetPtr() const = 0;
  // A buffer sharing [offset, offset + size) of this one.
  virtual Buffer View(long offset, long size, unsigned long flags) const = 0;
};

// Handle to device memory; copies share it. An empty Buffer is the null buffer.
class Buffer {
 public:
  Buffer() = default;
  Buffer(std::shared_ptr<IBufferImpl> impl) : impl_(std::move(impl)) {}

  long size() const { return impl_->size(); }
  void* UnsafeGetPtr() const { return impl_->UnsafeGetPtr(); }
  Buffer View(long offset, long size, unsigned long flags) const {
    return impl_->View(offset, size, flags);
  }

  const std::shared_ptr<IBufferImpl>& impl() const { return impl_; }
  IBufferImpl* get() const { return impl_.get(); }
  explicit operator bool() const { return impl_ != nullptr; }
  bool operator==(const Buffer& other) const { return impl_ == other.impl_; }
  bool operator!=(const Buffer& other) const { return impl_ != other.impl_; }

 private:
  std::shared_ptr<IBufferImpl> impl_;
};

// Wraps a freshly made platform buffer into a handle.
template <typename Impl, typename... Args>
Buffer MakeBuffer(Args&&... args) {
  return Buffer(std::make_shared<Impl>(std::forward<Args>(args)...));
}

}  // namespace nerva
