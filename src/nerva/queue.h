#pragma once

#include <memory>
#include <string>
#include <vector>

#include "nerva/buffer.h"
#include "nerva/event.h"
#include "nerva/function_wrapper.h"
#include "nerva/kernel.h"

namespace nerva {

// An ordered command stream of one platform session.
class IQueueImpl {
 public:
  virtual ~IQueueImpl() = default;
  virtual Event Enqueue(const Kernel& kernel) = 0;
  virtual Event Enqueue(const Kernel& kernel, const std::vector<Event>& wait_list) = 0;
  virtual Event CopyDeviceToHost(void* dst, const Buffer& src, long size) = 0;
  virtual Event CopyHostToDevice(Buffer dst, const void* src, long size) = 0;
  virtual Event CopyDeviceToDevice(Buffer dst, const Buffer& src, long size) = 0;
  virtual Event FillBuffer(Buffer dst, const void* pattern, unsigned long pattern_size, long offset,
                           long size) = 0;
  // Copies at byte offsets on both sides. A platform that does not override them
  // copies only from and to offset 0.
  virtual Event CopyDeviceToHost(void* dst, const Buffer& src, long src_offset, long size);
  virtual Event CopyHostToDevice(Buffer dst, long dst_offset, const void* src, long size);
  virtual Event CopyDeviceToDevice(Buffer dst, long dst_offset, const Buffer& src, long src_offset,
                                   long size);
  virtual void Wait() const = 0;
  virtual void WaitFor(const std::vector<Event>& events) const = 0;
  // The name of the platform of the session that owns the queue.
  virtual std::string GetPlatform() const = 0;
  virtual Kernel CreateKernelImpl(const std::string& name, FunctionParameters& params) = 0;

  // Packs the arguments, as forwarded, and asks the platform for the kernel
  // registered under `name`.
  template <typename... Args>
  Kernel CreateKernel(const std::string& name, Args&&... args) {
    FunctionParameters params(std::forward<Args>(args)...);
    return CreateKernelImpl(name, params);
  }
};

// Handle to a queue; converts to the shared pointer that operator front-ends take.
class Queue {
 public:
  Queue() = default;
  Queue(std::shared_ptr<IQueueImpl> impl) : impl_(std::move(impl)) {}

  Event Enqueue(const Kernel& kernel) { return impl_->Enqueue(kernel); }
  Event Enqueue(const Kernel& kernel, const std::vector<Event>& wait_list) {
    return impl_->Enqueue(kernel, wait_list);
  }
  // Blocking read of `size` bytes from the start of `src`.
  Event CopyDeviceToHost(void* dst, const Buffer& src, long size);
  // Blocking write of `size` bytes to the start of `dst`.
  Event CopyHostToDevice(Buffer dst, const void* src, long size);
  Event CopyDeviceToDevice(Buffer dst, const Buffer& src, long size);
  // The same at byte offsets: `size` bytes from `src` + src_offset to `dst` + dst_offset.
  Event CopyDeviceToHost(void* dst, const Buffer& src, long src_offset, long size);
  Event CopyHostToDevice(Buffer dst, long dst_offset, const void* src, long size);
  Event CopyDeviceToDevice(Buffer dst, long dst_offset, const Buffer& src, long src_offset,
                           long size);
  Event FillBuffer(Buffer dst, const void* pattern, unsigned long pattern_size, long offset,
                   long size) {
    return impl_->FillBuffer(std::move(dst), pattern, pattern_size, offset, size);
  }
  void Wait() const { impl_->Wait(); }
  void WaitFor(const std::vector<Event>& events) const { impl_->WaitFor(events); }
  std::string GetPlatform() const { return impl_->GetPlatform(); }

  const std::shared_ptr<IQueueImpl>& impl() const { return impl_; }
  IQueueImpl* get() const { return impl_.get(); }
  IQueueImpl* operator->() const { return impl_.get(); }
  operator const std::shared_ptr<IQueueImpl>&() const { return impl_; }
  explicit operator bool() const { return impl_ != nullptr; }

 private:
  std::shared_ptr<IQueueImpl> impl_;
};

}  // namespace nerva
