#include "nerva/platform/cpu/buffer_impl.h"

#include <algorithm>

#include "cpu_test_util.h"

namespace nerva::cpu::test {
namespace {

using BufferTest = CpuTest;

uint8_t* BytePtr(const Buffer& buffer) {
  return static_cast<uint8_t*>(buffer.UnsafeGetPtr());
}

TEST_F(BufferTest, NewBufferIsZeroFilled) {
  Buffer buffer = session_.MakeBuffer(kMemReadWrite, 24);
  EXPECT_EQ(buffer.size(), 24);
  EXPECT_EQ(Download(buffer), Bytes(24, 0));
}

TEST_F(BufferTest, HostPointerIsCopiedAtAllocation) {
  for (MemoryFlags flags : {kMemDefault, kMemReadWrite, kMemUseHostPtr}) {
    SCOPED_TRACE(flags);
    Bytes host = RandomBytes(40, flags);
    const Bytes original = host;
    Buffer buffer = session_.MakeBuffer(flags, 40, host.data());
    EXPECT_NE(buffer.UnsafeGetPtr(), host.data());
    host.assign(host.size(), 0xAB);
    EXPECT_EQ(Download(buffer), original);
  }
}

TEST_F(BufferTest, ViewOfViewAddressesRootAtSummedOffset) {
  const Bytes data = RandomBytes(64, 1);
  Buffer root = Upload(data);
  Buffer outer = root.View(8, 40, 0);
  Buffer inner = outer.View(4, 16, 0);
  EXPECT_EQ(BytePtr(outer), BytePtr(root) + 8);
  EXPECT_EQ(BytePtr(inner), BytePtr(root) + 12);
  EXPECT_EQ(inner.size(), 16);
  EXPECT_EQ(Download(inner), Bytes(data.begin() + 12, data.begin() + 28));

  // A write through the view is seen by the root.
  const Bytes patch = RandomBytes(16, 2);
  queue_.CopyHostToDevice(inner, patch.data(), 16);
  EXPECT_TRUE(std::equal(patch.begin(), patch.end(), BytePtr(root) + 12));
}

TEST_F(BufferTest, ViewKeepsMemoryAliveAfterOtherHandlesGo) {
  const Bytes data = RandomBytes(32, 3);
  Buffer inner;
  {
    Buffer root = Upload(data);
    inner = root.View(8, 16, 0).View(8, 8, 0);
  }
  EXPECT_EQ(Download(inner), Bytes(data.begin() + 16, data.begin() + 24));
}

TEST_F(BufferTest, ViewMustFitTheBuffer) {
  Buffer root = session_.MakeBuffer(kMemReadWrite, 32);
  Buffer half = root.View(16, 16, 0);
  struct Case {
    Buffer buffer;
    long offset;
    long size;
    const char* message;
  };
  const Case cases[] = {
      {root, 0, 33, "Create CPU view fail, the offset + size > total size: 0 + 33 > 32"},
      {root, 32, 1, "Create CPU view fail, the offset + size > total size: 32 + 1 > 32"},
      {half, 8, 9, "Create CPU view fail, the offset + size > total size: 8 + 9 > 16"},
  };
  for (const Case& c : cases) {
    EXPECT_THROW_MSG(c.buffer.View(c.offset, c.size, 0), std::invalid_argument, c.message);
  }
  EXPECT_EQ(root.View(16, 16, 0).size(), 16);
  EXPECT_EQ(half.View(0, 16, 0).size(), 16);
}

}  // namespace
}  // namespace nerva::cpu::test
