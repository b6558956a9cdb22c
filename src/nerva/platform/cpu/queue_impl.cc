#include "nerva/platform/cpu/queue_impl.h"

#include <cstring>
#include <stdexcept>

#include "nerva/argument_check.h"
#include "nerva/platform/cpu/buffer_impl.h"
#include "nerva/platform/cpu/module.h"
#include "nerva/platform/cpu/session_impl.h"
#include "nerva/util.h"

namespace nerva::cpu {
namespace {

Event CompleteEvent() {
  return MakeEvent<EventImpl>();
}

// Overlap-safe copy; zero bytes copy nothing.
void MoveBytes(void* dst, const void* src, long size) {
  if (size > 0) std::memmove(dst, src, static_cast<size_t>(size));
}

std::string ForeignReason(const Buffer& buffer) {
  return dynamic_cast<const BufferImpl*>(buffer.get()) ? "" : "is not a CPU buffer";
}

// The host bytes of a CPU buffer that hold at least `size` bytes.
void* BytesOf(const Buffer& buffer, long size, const char* what) {
  if (!buffer) throw std::invalid_argument(StrCat(what, " fail, the buffer is null"));
  const std::string reason = ForeignReason(buffer);
  if (!reason.empty()) throw std::invalid_argument(StrCat(what, " fail, the buffer ", reason));
  if (size < 0 || size > buffer.size()) {
    throw std::invalid_argument(
        StrCat(what, " fail, size ", size, " out of the buffer size ", buffer.size()));
  }
  return buffer.UnsafeGetPtr();
}

// The host bytes [offset, offset + size) of a CPU buffer.
char* BytesAt(const Buffer& buffer, long offset, long size, const char* what) {
  if (offset < 0 || size < 0 || (buffer && offset > buffer.size() - size)) {
    throw std::invalid_argument(StrCat(what, " fail, bytes [", offset, ", ", offset + size,
                                       ") out of the buffer size ", buffer ? buffer.size() : 0));
  }
  return static_cast<char*>(BytesOf(buffer, offset + size, what)) + offset;
}

}  // namespace

QueueImpl::QueueImpl(std::weak_ptr<SessionImpl> session) : session_(std::move(session)) {
  if (session_.expired()) throw std::invalid_argument("Null session error.");
}

std::shared_ptr<SessionImpl> QueueImpl::LockSession() const {
  auto session = session_.lock();
  if (!session) throw std::runtime_error("CPU session has been expired!");
  return session;
}

Event QueueImpl::Enqueue(const Kernel& kernel) {
  auto* cpu_kernel = dynamic_cast<KernelImpl*>(kernel.get());
  if (cpu_kernel == nullptr) throw std::runtime_error("Enqueue invalid CPU kernel!");
  cpu_kernel->Run();
  return CompleteEvent();
}

// Earlier work is always complete, so there is nothing to wait for.
Event QueueImpl::Enqueue(const Kernel& kernel, const std::vector<Event>& /*wait_list*/) {
  return Enqueue(kernel);
}

Event QueueImpl::CopyDeviceToHost(void* dst, const Buffer& src, long size) {
  if (dst == nullptr) throw std::runtime_error("CopyDeviceToHost fail, unexpected null dest");
  MoveBytes(dst, BytesOf(src, size, "CopyDeviceToHost"), size);
  return CompleteEvent();
}

Event QueueImpl::CopyHostToDevice(Buffer dst, const void* src, long size) {
  if (src == nullptr) throw std::runtime_error("CopyHostToDevice fail, unexpected null src");
  MoveBytes(BytesOf(dst, size, "CopyHostToDevice"), src, size);
  return CompleteEvent();
}

Event QueueImpl::CopyDeviceToDevice(Buffer dst, const Buffer& src, long size) {
  void* to = BytesOf(dst, size, "CopyDeviceToDevice");
  MoveBytes(to, BytesOf(src, size, "CopyDeviceToDevice"), size);
  return CompleteEvent();
}

Event QueueImpl::CopyDeviceToHost(void* dst, const Buffer& src, long src_offset, long size) {
  if (dst == nullptr) throw std::runtime_error("CopyDeviceToHost fail, unexpected null dest");
  MoveBytes(dst, BytesAt(src, src_offset, size, "CopyDeviceToHost"), size);
  return CompleteEvent();
}

Event QueueImpl::CopyHostToDevice(Buffer dst, long dst_offset, const void* src, long size) {
  if (src == nullptr) throw std::runtime_error("CopyHostToDevice fail, unexpected null src");
  MoveBytes(BytesAt(dst, dst_offset, size, "CopyHostToDevice"), src, size);
  return CompleteEvent();
}

Event QueueImpl::CopyDeviceToDevice(Buffer dst, long dst_offset, const Buffer& src, long src_offset,
                                    long size) {
  char* to = BytesAt(dst, dst_offset, size, "CopyDeviceToDevice");
  MoveBytes(to, BytesAt(src, src_offset, size, "CopyDeviceToDevice"), size);
  return CompleteEvent();
}

Event QueueImpl::FillBuffer(Buffer /*dst*/, const void* /*pattern*/, unsigned long /*pattern_size*/,
                            long /*offset*/, long /*size*/) {
  return CompleteEvent();
}

std::string QueueImpl::GetPlatform() const {
  return LockSession()->platform();
}

Kernel QueueImpl::CreateKernelImpl(const std::string& name, FunctionParameters& params) {
  LockSession();  // kernels are made only while the session lives
  const auto* creator = CpuModule::singleton().FindKernel(name);
  if (creator == nullptr) throw std::runtime_error("CPU not support kernel: " + name);
  std::shared_ptr<KernelImpl> kernel = creator->Call(params);
  // CPU kernels read and write every tensor densely from its buffer's first byte.
  CheckKernelArguments(name, params.arguments(), &ForeignReason, TensorLayout::kDense);
  if (!kernel->Verify()) throw std::runtime_error("CPU kernel \"" + name + "\" verify fail.");
  return Kernel(kernel);
}

}  // namespace nerva::cpu
