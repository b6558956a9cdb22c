#pragma once

#include <memory>
#include <string>
#include <vector>

#include "nerva/platform/cl/cl_api.h"
#include "nerva/platform/cl/event_impl.h"
#include "nerva/queue.h"

namespace nerva {
namespace cl {

class SessionImpl;

// Profiling is on when NERVA_PROFILING is "1", "true", "True" or "TRUE".
bool ProfilingEnabledByEnv();

// An in-order OpenCL command queue of a session; holds the session weakly.
class QueueImpl : public IQueueImpl, public std::enable_shared_from_this<QueueImpl> {
 public:
  explicit QueueImpl(std::weak_ptr<SessionImpl> session);
  // Adopts (and retains) a caller's command queue.
  QueueImpl(std::weak_ptr<SessionImpl> session, cl_command_queue queue);

  Event Enqueue(const Kernel& kernel) override;
  Event Enqueue(const Kernel& kernel, const std::vector<Event>& wait_list) override;
  Event CopyDeviceToHost(void* dst, const Buffer& src, long size) override;
  Event CopyHostToDevice(Buffer dst, const void* src, long size) override;
  Event CopyDeviceToDevice(Buffer dst, const Buffer& src, long size) override;
  Event CopyDeviceToHost(void* dst, const Buffer& src, long src_offset, long size) override;
  Event CopyHostToDevice(Buffer dst, long dst_offset, const void* src, long size) override;
  Event CopyDeviceToDevice(Buffer dst, long dst_offset, const Buffer& src, long src_offset,
                           long size) override;
  Event FillBuffer(Buffer dst, const void* pattern, unsigned long pattern_size, long offset,
                   long size) override;
  void Wait() const override;
  void WaitFor(const std::vector<Event>& events) const override;
  std::string GetPlatform() const override;
  Kernel CreateKernelImpl(const std::string& name, FunctionParameters& params) override;

  // Forms on OpenCL wait lists; each returns the event of its (last) command.
  ::cl::Event Enqueue(const Kernel& kernel, const ClEventVector& wait_list);
  ::cl::Event CopyDeviceToHost(void* dst, const Buffer& src, long size,
                               const ClEventVector& wait_list, long src_offset = 0);
  ::cl::Event CopyHostToDevice(Buffer dst, const void* src, long size,
                               const ClEventVector& wait_list, long dst_offset = 0);
  ::cl::Event CopyDeviceToDevice(Buffer dst, const Buffer& src, long size,
                                 const ClEventVector& wait_list, long dst_offset = 0,
                                 long src_offset = 0);
  ::cl::Event FillBuffer(Buffer dst, const void* pattern, size_t pattern_size, long offset,
                         long size, const ClEventVector& wait_list);
  void WaitFor(const ClEventVector& events) const;
  // Blocks on the event and reads its start and end times.
  void ProfileEvent(const ::cl::Event& event, const std::string& name) const;

  bool profiling() const { return profiling_; }
  const ::cl::CommandQueue& queue() const { return queue_; }
  std::shared_ptr<SessionImpl> session() const { return session_.lock(); }
  // The session, or "CL session has been expired!".
  std::shared_ptr<SessionImpl> LockSession() const;

 private:
  bool profiling_ = false;
  std::weak_ptr<SessionImpl> session_;
  ::cl::CommandQueue queue_;
};

}  // namespace cl
}  // namespace nerva
