#pragma once

#include <memory>
#include <string>
#include <vector>

#include "nerva/event.h"
#include "nerva/queue.h"

namespace nerva::cpu {

class SessionImpl;

// Every CPU operation finishes before its event is returned.
class EventImpl : public IEventImpl {};

// Runs every command synchronously on the calling thread. The queue refers to
// its session weakly: kernels can be created only while the session lives.
class QueueImpl : public IQueueImpl, public std::enable_shared_from_this<QueueImpl> {
 public:
  explicit QueueImpl(std::weak_ptr<SessionImpl> session);

  Event Enqueue(const Kernel& kernel) override;
  Event Enqueue(const Kernel& kernel, const std::vector<Event>& wait_list) override;
  Event CopyDeviceToHost(void* dst, const Buffer& src, long size) override;
  Event CopyHostToDevice(Buffer dst, const void* src, long size) override;
  Event CopyDeviceToDevice(Buffer dst, const Buffer& src, long size) override;
  Event CopyDeviceToHost(void* dst, const Buffer& src, long src_offset, long size) override;
  Event CopyHostToDevice(Buffer dst, long dst_offset, const void* src, long size) override;
  Event CopyDeviceToDevice(Buffer dst, long dst_offset, const Buffer& src, long src_offset,
                           long size) override;
  // Writes nothing: filling is not an operation of the CPU platform.
  Event FillBuffer(Buffer dst, const void* pattern, unsigned long pattern_size, long offset,
                   long size) override;
  void Wait() const override {}
  void WaitFor(const std::vector<Event>& /*events*/) const override {}
  std::string GetPlatform() const override;
  Kernel CreateKernelImpl(const std::string& name, FunctionParameters& params) override;

 private:
  std::shared_ptr<SessionImpl> LockSession() const;

  std::weak_ptr<SessionImpl> session_;
};

}  // namespace nerva::cpu
