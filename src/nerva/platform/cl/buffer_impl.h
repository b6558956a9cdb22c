#pragma once

#include <memory>

#include "nerva/buffer.h"
#include "nerva/platform/cl/cl_api.h"

namespace nerva {
namespace cl {

class SessionImpl;

// The cl_mem_flags for a MemoryFlags value: the write-only and read-write bits
// trade places; a host pointer is used (bit 4) or copied. Views pass no host pointer.
cl_mem_flags ToClMemFlags(unsigned long flags, bool has_host_ptr);

// Device memory of an OpenCL session; holds the session weakly.
class BufferImpl : public IBufferImpl {
 public:
  BufferImpl(std::weak_ptr<SessionImpl> session, MemoryFlags flags, long size, void* host_ptr);
  // Adopts an existing memory object (a sub-buffer or a caller's cl_mem).
  BufferImpl(std::weak_ptr<SessionImpl> session, const ::cl::Buffer& mem, long size);

  long size() const override { return size_; }
  void* UnsafeGetPtr() const override;
  Buffer View(long offset, long size, unsigned long flags) const override;

  const ::cl::Buffer& mem() const { return mem_; }

 private:
  std::weak_ptr<SessionImpl> session_;
  long size_ = 0;
  ::cl::Buffer mem_;
};

}  // namespace cl
}  // namespace nerva
