#pragma once

#include <memory>
#include <string>

#include "nerva/buffer.h"
#include "nerva/platform/cl/cl_api.h"

namespace nerva {
namespace cl {

class SessionImpl;

// The cl_mem_flags for a MemoryFlags value: the write-only and read-write bits
// trade places; a host pointer is used (bit 4) or copied. Views pass no host pointer.
cl_mem_flags ToClMemFlags(unsigned long flags, bool has_host_ptr);

// Device memory of an OpenCL session; holds the session weakly. A view is a
// sub-buffer of the root memory object (OpenCL has no sub-buffers of
// sub-buffers), so views of views work at summed offsets.
class BufferImpl : public IBufferImpl {
 public:
  BufferImpl(std::weak_ptr<SessionImpl> session, MemoryFlags flags, long size, void* host_ptr);
  // Adopts an existing memory object (a sub-buffer or a caller's cl_mem); a
  // sub-buffer's root and origin are read from the object.
  BufferImpl(std::weak_ptr<SessionImpl> session, const ::cl::Buffer& mem, long size);

  long size() const override { return size_; }
  void* UnsafeGetPtr() const override;
  Buffer View(long offset, long size, unsigned long flags) const override;

  const ::cl::Buffer& mem() const { return mem_; }
  const std::weak_ptr<SessionImpl>& session() const { return session_; }

 private:
  BufferImpl(std::weak_ptr<SessionImpl> session, const ::cl::Buffer& mem, long size,
             const ::cl::Buffer& root, long origin);

  std::weak_ptr<SessionImpl> session_;
  long size_ = 0;
  ::cl::Buffer mem_;
  ::cl::Buffer root_;  // the memory object that holds mem_'s bytes
  long origin_ = 0;    // byte offset of mem_ inside root_
};

// Why `buffer` cannot serve `session` (not an OpenCL buffer, or another or a
// released session's); empty when it can.
std::string ForeignBufferReason(const Buffer& buffer, const SessionImpl* session);

}  // namespace cl
}  // namespace nerva
