#include "nerva/platform/cl/module.h"

#include <memory>

#include "nerva/platform/cl/buffer_impl.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

Buffer MakeBaseBuffer(std::shared_ptr<ISessionImpl> session, MemoryFlags flags, long size,
                      void* host_ptr) {
  auto cl_session = std::dynamic_pointer_cast<SessionImpl>(session);
  if (!cl_session) throw std::runtime_error("Null session error.");
  if (size < 0) throw std::invalid_argument(StrCat("Make CL buffer fail with size ", size));
  return MakeBuffer<BufferImpl>(std::weak_ptr<SessionImpl>(cl_session), flags, size, host_ptr);
}

}  // namespace

ClModule::ClModule() : Module<KernelImpl>("CL") {
  AddAllocatorImpl(
      "MakeBuffer",
      MakeFunctionWrapper<Buffer, std::shared_ptr<ISessionImpl>, MemoryFlags, long, void*>(
          "MakeBuffer", &MakeBaseBuffer));
  RegisterTCCoefEncoder(*this);
}

ClModule& ClModule::singleton() {
  static ClModule module;
  return module;
}

}  // namespace cl
}  // namespace nerva
