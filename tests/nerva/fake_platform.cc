#include "fake_platform.h"

namespace nerva::test {
namespace {

// The fake allocator: (session, flags, size, host pointer), as the platforms register it.
Buffer FakeAllocate(std::shared_ptr<ISessionImpl>, MemoryFlags, long size, void*) {
  return MakeBuffer<FakeBufferImpl>(size);
}

NERVA_STATIC_REGISTER {
  FakeModule::singleton().AddAllocatorImpl(
      "MakeBuffer",
      MakeFunctionWrapper<Buffer, std::shared_ptr<ISessionImpl>, MemoryFlags, long, void*>(
          "MakeBuffer", FakeAllocate));
};

}  // namespace
}  // namespace nerva::test
