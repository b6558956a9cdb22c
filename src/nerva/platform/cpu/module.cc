#include "nerva/platform/cpu/module.h"

#include <cstring>
#include <stdexcept>

#include "nerva/platform/cpu/buffer_impl.h"
#include "nerva/session.h"
#include "nerva/util.h"

namespace nerva::cpu {
namespace {

// A new zero-filled storage of `size` bytes holding a copy of `host_ptr`'s
// bytes when given. The flags have no meaning on the host.
Buffer AllocateBuffer(std::shared_ptr<ISessionImpl> /*session*/, MemoryFlags /*flags*/, long size,
                      void* host_ptr) {
  if (size < 0) throw std::invalid_argument(StrCat("Make CPU buffer fail with size ", size));
  auto storage = std::make_shared<Storage>(size);
  if (host_ptr != nullptr && size > 0) std::memcpy(storage->data(), host_ptr, size);
  return MakeBuffer<BufferImpl>(std::move(storage));
}

NERVA_STATIC_REGISTER {
  CpuModule::singleton().AddAllocatorImpl(
      "MakeBuffer",
      MakeFunctionWrapper<Buffer, std::shared_ptr<ISessionImpl>, MemoryFlags, long, void*>(
          "MakeBuffer", &AllocateBuffer));
};

}  // namespace

CpuModule& CpuModule::singleton() {
  static CpuModule module;
  return module;
}

}  // namespace nerva::cpu
