#include "nerva/platform/cl/buffer_impl.h"

#include <stdexcept>

#include "nerva/platform/cl/session_impl.h"
#include "nerva/platform/cl/util.h"

namespace nerva {
namespace cl {

cl_mem_flags ToClMemFlags(unsigned long flags, bool has_host_ptr) {
  cl_mem_flags out = 0;
  if (flags & kMemWriteOnly) out |= CL_MEM_WRITE_ONLY;
  if (flags & kMemReadWrite) out |= CL_MEM_READ_WRITE;
  if (has_host_ptr) out |= (flags & kMemUseHostPtr) ? CL_MEM_USE_HOST_PTR : CL_MEM_COPY_HOST_PTR;
  return out;
}

BufferImpl::BufferImpl(std::weak_ptr<SessionImpl> session, MemoryFlags flags, long size,
                       void* host_ptr)
    : session_(std::move(session)), size_(size) {
  auto owner = session_.lock();
  if (!owner) throw std::runtime_error("Null session error.");
  cl_int status = CL_SUCCESS;
  mem_ = ::cl::Buffer(owner->context(), ToClMemFlags(flags, host_ptr != nullptr),
                      static_cast<size_t>(size), host_ptr, &status);
  CheckStatus(status, "Create CL buffer fail, reason :");
}

BufferImpl::BufferImpl(std::weak_ptr<SessionImpl> session, const ::cl::Buffer& mem, long size)
    : session_(std::move(session)), size_(size), mem_(mem) {}

void* BufferImpl::UnsafeGetPtr() const {
  if (session_.expired()) {
    throw std::runtime_error("Get CL buffer pointer fail, the session has been released!");
  }
  return mem_.get();
}

Buffer BufferImpl::View(long offset, long size, unsigned long flags) const {
  cl_buffer_region region{static_cast<size_t>(offset), static_cast<size_t>(size)};
  cl_int status = CL_SUCCESS;
  ::cl::Buffer view = const_cast<::cl::Buffer&>(mem_).createSubBuffer(
      ToClMemFlags(flags, false), CL_BUFFER_CREATE_TYPE_REGION, &region, &status);
  CheckStatus(status, "Create CL sub buffer fail, reason :");
  return MakeBuffer<BufferImpl>(session_, view, size);
}

}  // namespace cl
}  // namespace nerva
