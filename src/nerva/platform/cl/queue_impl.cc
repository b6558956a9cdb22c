#include "nerva/platform/cl/queue_impl.h"

#include <stdexcept>

#include "nerva/argument_check.h"
#include "nerva/platform/cl/buffer_impl.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/platform/cl/util.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

// The raw handles of the non-empty events of a wait list.
std::vector<cl_event> RawEvents(const ClEventVector& events) {
  std::vector<cl_event> raw;
  raw.reserve(events.size());
  for (const auto& event : events) {
    if (event() != nullptr) raw.push_back(event());
  }
  return raw;
}

// The memory object of a buffer of `session`; `what` names the command in the message.
cl_mem MemOf(const Buffer& buffer, const std::weak_ptr<SessionImpl>& session, const char* what) {
  if (!buffer) throw std::invalid_argument(StrCat(what, " fail, the buffer is null"));
  if (dynamic_cast<const BufferImpl*>(buffer.get()) == nullptr) {
    throw std::invalid_argument(StrCat(what, " fail, the buffer is not an OpenCL buffer"));
  }
  cl_mem mem = static_cast<cl_mem>(buffer.UnsafeGetPtr());  // throws once its session is gone
  const std::string reason = ForeignBufferReason(buffer, session.lock().get());
  if (!reason.empty()) throw std::invalid_argument(StrCat(what, " fail, the buffer ", reason));
  return mem;
}

// A copy must stay inside the buffer; a null host pointer moves nothing.
void CheckCopy(const char* what, long size, const Buffer& buffer, long offset = 0) {
  if (size < 0 || offset < 0 || offset > buffer.size() - size) {
    throw std::invalid_argument(StrCat(what, " fail, bytes [", offset, ", ", offset + size,
                                       ") out of the buffer size ", buffer.size()));
  }
}

// Runs `enqueue(count, events, &event)` and wraps the resulting event.
template <typename F>
::cl::Event EnqueueCommand(const ClEventVector& wait_list, const char* what, F&& enqueue) {
  std::vector<cl_event> raw = RawEvents(wait_list);
  cl_event event = nullptr;
  cl_int status =
      enqueue(static_cast<cl_uint>(raw.size()), raw.empty() ? nullptr : raw.data(), &event);
  CheckStatus(status, what);
  return ::cl::Event(event);  // takes over the reference of the new event
}

}  // namespace

bool ProfilingEnabledByEnv() {
  auto value = EnvVar("NERVA_PROFILING");
  return value && (*value == "1" || *value == "true" || *value == "True" || *value == "TRUE");
}

QueueImpl::QueueImpl(std::weak_ptr<SessionImpl> session)
    : profiling_(ProfilingEnabledByEnv()), session_(std::move(session)) {
  auto owner = session_.lock();
  if (!owner) throw std::runtime_error("Null session error.");
  cl_queue_properties properties[] = {
      CL_QUEUE_PROPERTIES, profiling_ ? CL_QUEUE_PROFILING_ENABLE : cl_queue_properties(0), 0};
  cl_int status = CL_SUCCESS;
  cl_command_queue queue = clCreateCommandQueueWithProperties(owner->context()(), owner->device()(),
                                                              properties, &status);
  CheckStatus(status, "Create CL command queue fail, reason :");
  queue_ = ::cl::CommandQueue(queue);
}

QueueImpl::QueueImpl(std::weak_ptr<SessionImpl> session, cl_command_queue queue)
    : profiling_(ProfilingEnabledByEnv()), session_(std::move(session)), queue_(queue, true) {}

Event QueueImpl::Enqueue(const Kernel& kernel) {
  return MakeEvent<EventImpl>(Enqueue(kernel, ClEventVector{}));
}

Event QueueImpl::Enqueue(const Kernel& kernel, const std::vector<Event>& wait_list) {
  return MakeEvent<EventImpl>(Enqueue(kernel, ToClEventVector(wait_list)));
}

::cl::Event QueueImpl::Enqueue(const Kernel& kernel, const ClEventVector& wait_list) {
  auto impl = std::dynamic_pointer_cast<KernelImpl>(kernel.impl());
  if (!impl) throw std::runtime_error("Enqueue invalid CL kernel, please compile it first!");
  // A queue outliving its session still runs the kernels it was given, as
  // the objects they hold stay retained; a live session refuses others' kernels.
  auto owner = session_.lock();
  if (owner && !impl->units().empty() && impl->session().lock() != owner) {
    throw std::invalid_argument("Enqueue CL kernel " + impl->name() +
                                " fail, it was created for another session");
  }
  auto self = shared_from_this();
  impl->BeforeEnqueue(self, wait_list);
  ::cl::Event last;
  ClEventVector waits = wait_list;
  for (const auto& unit : impl->units()) {
    const ::cl::NDRange& local = unit->local();
    last = EnqueueCommand(waits, ("CL enqueue kernel " + unit->name() + " fail, reason :").c_str(),
                          [&](cl_uint count, const cl_event* events, cl_event* event) {
                            return clEnqueueNDRangeKernel(
                                queue_(), unit->kernel()(), unit->global().dimensions(), nullptr,
                                unit->global(), local.dimensions() ? (const size_t*)local : nullptr,
                                count, events, event);
                          });
    if (profiling_) ProfileEvent(last, unit->name());
    waits.assign(1, last);
  }
  impl->AfterEnqueue(self, wait_list);
  return last;
}

Event QueueImpl::CopyDeviceToHost(void* dst, const Buffer& src, long size) {
  return MakeEvent<EventImpl>(CopyDeviceToHost(dst, src, size, ClEventVector{}));
}

Event QueueImpl::CopyHostToDevice(Buffer dst, const void* src, long size) {
  return MakeEvent<EventImpl>(CopyHostToDevice(std::move(dst), src, size, ClEventVector{}));
}

Event QueueImpl::CopyDeviceToDevice(Buffer dst, const Buffer& src, long size) {
  return MakeEvent<EventImpl>(CopyDeviceToDevice(std::move(dst), src, size, ClEventVector{}));
}

Event QueueImpl::CopyDeviceToHost(void* dst, const Buffer& src, long src_offset, long size) {
  return MakeEvent<EventImpl>(CopyDeviceToHost(dst, src, size, ClEventVector{}, src_offset));
}

Event QueueImpl::CopyHostToDevice(Buffer dst, long dst_offset, const void* src, long size) {
  return MakeEvent<EventImpl>(
      CopyHostToDevice(std::move(dst), src, size, ClEventVector{}, dst_offset));
}

Event QueueImpl::CopyDeviceToDevice(Buffer dst, long dst_offset, const Buffer& src, long src_offset,
                                    long size) {
  return MakeEvent<EventImpl>(
      CopyDeviceToDevice(std::move(dst), src, size, ClEventVector{}, dst_offset, src_offset));
}

Event QueueImpl::FillBuffer(Buffer dst, const void* pattern, unsigned long pattern_size,
                            long offset, long size) {
  return MakeEvent<EventImpl>(
      FillBuffer(std::move(dst), pattern, pattern_size, offset, size, ClEventVector{}));
}

::cl::Event QueueImpl::CopyDeviceToHost(void* dst, const Buffer& src, long size,
                                        const ClEventVector& wait_list, long src_offset) {
  const char* what = "CL copy device buffer to host";
  cl_mem mem = MemOf(src, session_, what);
  CheckCopy(what, size, src, src_offset);
  if (dst == nullptr && size > 0) throw std::invalid_argument("CopyDeviceToHost fail, null dest");
  return EnqueueCommand(wait_list, "CL copy device buffer to host fail, reason :",
                        [&](cl_uint count, const cl_event* events, cl_event* event) {
                          return clEnqueueReadBuffer(queue_(), mem, CL_TRUE, src_offset, size, dst,
                                                     count, events, event);
                        });
}

::cl::Event QueueImpl::CopyHostToDevice(Buffer dst, const void* src, long size,
                                        const ClEventVector& wait_list, long dst_offset) {
  const char* what = "CL copy host buffer to device";
  cl_mem mem = MemOf(dst, session_, what);
  CheckCopy(what, size, dst, dst_offset);
  if (src == nullptr && size > 0) throw std::invalid_argument("CopyHostToDevice fail, null src");
  return EnqueueCommand(wait_list, "CL copy host buffer to device fail, reason :",
                        [&](cl_uint count, const cl_event* events, cl_event* event) {
                          return clEnqueueWriteBuffer(queue_(), mem, CL_TRUE, dst_offset, size, src,
                                                      count, events, event);
                        });
}

::cl::Event QueueImpl::CopyDeviceToDevice(Buffer dst, const Buffer& src, long size,
                                          const ClEventVector& wait_list, long dst_offset,
                                          long src_offset) {
  const char* what = "CL copy device buffer to device buffer";
  cl_mem src_mem = MemOf(src, session_, what);
  cl_mem dst_mem = MemOf(dst, session_, what);
  CheckCopy(what, size, src, src_offset);
  CheckCopy(what, size, dst, dst_offset);
  return EnqueueCommand(wait_list, "CL copy device buffer to device buffer fail, reason :",
                        [&](cl_uint count, const cl_event* events, cl_event* event) {
                          return clEnqueueCopyBuffer(queue_(), src_mem, dst_mem, src_offset,
                                                     dst_offset, size, count, events, event);
                        });
}

::cl::Event QueueImpl::FillBuffer(Buffer dst, const void* pattern, size_t pattern_size, long offset,
                                  long size, const ClEventVector& wait_list) {
  const char* what = "CL enqueue fill buffer";
  cl_mem mem = MemOf(dst, session_, what);
  CheckCopy(what, size, dst, offset);
  return EnqueueCommand(wait_list, "CL enqueue fill buffer fail, reason :",
                        [&](cl_uint count, const cl_event* events, cl_event* event) {
                          return clEnqueueFillBuffer(queue_(), mem, pattern, pattern_size, offset,
                                                     size, count, events, event);
                        });
}

void QueueImpl::Wait() const {
  CheckStatus(clFinish(queue_()), "CL finish queue fail, reason :");
}

void QueueImpl::WaitFor(const std::vector<Event>& events) const {
  WaitFor(ToClEventVector(events));
}

void QueueImpl::WaitFor(const ClEventVector& events) const {
  std::vector<cl_event> raw = RawEvents(events);
  if (raw.empty()) return;
  CheckStatus(clWaitForEvents(static_cast<cl_uint>(raw.size()), raw.data()),
              "CL wait for events fail, reason :");
}

void QueueImpl::ProfileEvent(const ::cl::Event& event, const std::string& /*name*/) const {
  cl_event raw = event();
  CheckStatus(clWaitForEvents(1, &raw), "CL wait for events fail, reason :");
  cl_ulong start = 0;
  cl_ulong end = 0;
  CheckStatus(event.getProfilingInfo(CL_PROFILING_COMMAND_START, &start),
              "Get profiling start info fail, reason :");
  CheckStatus(event.getProfilingInfo(CL_PROFILING_COMMAND_END, &end),
              "Get profiling end info fail, reason :");
}

std::string QueueImpl::GetPlatform() const {
  auto owner = session_.lock();
  return owner ? owner->platform() : "opencl";
}

std::shared_ptr<SessionImpl> QueueImpl::LockSession() const {
  auto session = session_.lock();
  if (!session) throw std::runtime_error("CL session has been expired!");
  return session;
}

Kernel QueueImpl::CreateKernelImpl(const std::string& name, FunctionParameters& params) {
  auto session = LockSession();
  const auto* creator = ClModule::singleton().FindKernel(name);
  if (creator == nullptr) throw std::runtime_error("CL not support kernel: " + name);
  KernelNameScope scope(name);
  std::shared_ptr<KernelImpl> kernel = creator->Call(params);
  // The operator's own checks (and their messages) come first; the memory
  // check then guards every kernel, whatever its Verify covers.
  if (!kernel->Verify()) throw std::runtime_error("CL kernel '" + name + "' verify fail.");
  CheckKernelArguments(name, params.arguments(), [&](const Buffer& buffer) {
    return ForeignBufferReason(buffer, session.get());
  });
  kernel->BindSession(session);
  kernel->Compile(session);
  return Kernel(kernel);
}

}  // namespace cl
}  // namespace nerva
