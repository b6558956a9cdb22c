#include "nerva/platform/cl/buffer_impl.h"

#include <stdexcept>

#include "nerva/platform/cl/session_impl.h"
#include "nerva/platform/cl/util.h"
#include "nerva/util.h"

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
  if (size < 0) throw std::invalid_argument(StrCat("Make CL buffer fail with size ", size));
  cl_int status = CL_SUCCESS;
  mem_ = ::cl::Buffer(owner->context(), ToClMemFlags(flags, host_ptr != nullptr),
                      static_cast<size_t>(size), host_ptr, &status);
  CheckStatus(status, "Create CL buffer fail, reason :");
  root_ = mem_;
}

BufferImpl::BufferImpl(std::weak_ptr<SessionImpl> session, const ::cl::Buffer& mem, long size)
    : session_(std::move(session)), size_(size), mem_(mem), root_(mem) {
  cl_mem parent = nullptr;
  if (clGetMemObjectInfo(mem(), CL_MEM_ASSOCIATED_MEMOBJECT, sizeof(parent), &parent, nullptr) ==
          CL_SUCCESS &&
      parent != nullptr) {
    size_t origin = 0;
    CheckStatus(clGetMemObjectInfo(mem(), CL_MEM_OFFSET, sizeof(origin), &origin, nullptr),
                "Get CL sub buffer offset fail, reason :");
    root_ = ::cl::Buffer(parent, true);
    origin_ = static_cast<long>(origin);
  }
}

BufferImpl::BufferImpl(std::weak_ptr<SessionImpl> session, const ::cl::Buffer& mem, long size,
                       const ::cl::Buffer& root, long origin)
    : session_(std::move(session)), size_(size), mem_(mem), root_(root), origin_(origin) {}

void* BufferImpl::UnsafeGetPtr() const {
  if (session_.expired()) {
    throw std::runtime_error("Get CL buffer pointer fail, the session has been released!");
  }
  return mem_.get();
}

Buffer BufferImpl::View(long offset, long size, unsigned long flags) const {
  // A region outside the buffer is refused as the driver would refuse it.
  if (offset < 0 || size < 0 || offset > size_ - size) {
    CheckStatus(CL_INVALID_VALUE, "Create CL sub buffer fail, reason :");
  }
  cl_buffer_region region{static_cast<size_t>(origin_ + offset), static_cast<size_t>(size)};
  cl_int status = CL_SUCCESS;
  ::cl::Buffer view = const_cast<::cl::Buffer&>(root_).createSubBuffer(
      ToClMemFlags(flags, false), CL_BUFFER_CREATE_TYPE_REGION, &region, &status);
  CheckStatus(status, "Create CL sub buffer fail, reason :");
  return Buffer(
      std::shared_ptr<BufferImpl>(new BufferImpl(session_, view, size, root_, origin_ + offset)));
}

std::string ForeignBufferReason(const Buffer& buffer, const SessionImpl* session) {
  const auto* impl = dynamic_cast<const BufferImpl*>(buffer.get());
  if (impl == nullptr) return "is not an OpenCL buffer";
  const auto owner = impl->session().lock();
  if (!owner) return "belongs to a released session";
  if (owner.get() != session) return "belongs to another session";
  return "";
}

}  // namespace cl
}  // namespace nerva
