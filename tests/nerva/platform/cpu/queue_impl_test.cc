#include "nerva/platform/cpu/queue_impl.h"

#include <optional>
#include <utility>

#include "cpu_test_util.h"
#include "nerva/platform/cpu/session_impl.h"

namespace nerva::cpu::test {
namespace {

using QueueTest = CpuTest;

TEST_F(QueueTest, ReportsTheSessionPlatform) {
  EXPECT_EQ(queue_.GetPlatform(), "cpu");
}

TEST_F(QueueTest, RejectsAnExpiredSessionAtConstruction) {
  EXPECT_THROW_MSG(QueueImpl(std::weak_ptr<SessionImpl>()), std::invalid_argument,
                   "Null session error.");
}

TEST_F(QueueTest, FillBufferLeavesMemoryUnchanged) {
  const Bytes data = RandomBytes(32, 4);
  Buffer buffer = Upload(data);
  const uint32_t pattern = 0;
  EXPECT_TRUE(queue_.FillBuffer(buffer, &pattern, sizeof(pattern), 0, 32));
  EXPECT_EQ(Download(buffer), data);
}

TEST_F(QueueTest, CopiesMoveBytesBetweenHostAndBuffers) {
  const Bytes data = RandomBytes(48, 5);
  Buffer src = Upload(data);
  Buffer dst = session_.MakeBuffer(kMemReadWrite, 48);
  EXPECT_TRUE(queue_.CopyDeviceToDevice(dst, src, 48));
  EXPECT_EQ(Download(dst), data);
}

TEST_F(QueueTest, CopiesAtByteOffsets) {
  const Bytes data = RandomBytes(40, 8);
  Buffer src = Upload(data);
  Buffer dst = Upload(Bytes(40, 0));
  Queue& queue = queue_;
  EXPECT_TRUE(queue.CopyDeviceToDevice(dst, 7, src, 3, 29));
  Bytes want(40, 0);
  std::copy(data.begin() + 3, data.begin() + 32, want.begin() + 7);
  EXPECT_EQ(Download(dst), want);
  Bytes host(5, 0);
  EXPECT_TRUE(queue.CopyDeviceToHost(host.data(), src, 35, 5));
  EXPECT_EQ(host, Bytes(data.begin() + 35, data.end()));
  EXPECT_TRUE(queue.CopyHostToDevice(dst, 1, host.data(), 5));
  EXPECT_EQ(Download(dst)[1], data[35]);
  EXPECT_THROW(queue.CopyDeviceToDevice(dst, 12, src, 0, 29), std::invalid_argument);
  EXPECT_THROW(queue.CopyDeviceToHost(host.data(), src, -1, 2), std::invalid_argument);
}

TEST_F(QueueTest, ZeroByteCopiesDoNothing) {
  const Bytes data = RandomBytes(16, 6);
  const Bytes other = RandomBytes(16, 7);
  Buffer buffer = Upload(data);
  Buffer source = Upload(other);
  Bytes host = other;
  EXPECT_TRUE(queue_.CopyHostToDevice(buffer, other.data(), 0));
  EXPECT_TRUE(queue_.CopyDeviceToDevice(buffer, source, 0));
  EXPECT_TRUE(queue_.CopyDeviceToHost(host.data(), buffer, 0));
  EXPECT_EQ(Download(buffer), data);
  EXPECT_EQ(host, other);
}

TEST_F(QueueTest, NullHostPointersAreRejectedByThePlatform) {
  Buffer buffer = session_.MakeBuffer(kMemReadWrite, 8);
  IQueueImpl& queue = *queue_.impl();
  EXPECT_THROW_MSG(queue.CopyHostToDevice(buffer, nullptr, 8), std::runtime_error,
                   "CopyHostToDevice fail, unexpected null src");
  EXPECT_THROW_MSG(queue.CopyDeviceToHost(nullptr, buffer, 8), std::runtime_error,
                   "CopyDeviceToHost fail, unexpected null dest");
}

TEST_F(QueueTest, RefusesOperatorsItDoesNotImplement) {
  TensorOption option{Shape({4}), kFloat};
  Buffer in = session_.MakeBuffer(kMemReadWrite, option.bytes());
  Buffer out = session_.MakeBuffer(kMemReadWrite, option.bytes());
  for (const char* name : {"Softmax", "ActivationV1", "permute", ""}) {
    EXPECT_THROW_MSG(queue_->CreateKernel(name, std::as_const(option), std::as_const(in),
                                          std::as_const(option), out),
                     std::runtime_error, std::string("CPU not support kernel: ") + name);
  }
}

struct ForeignKernelImpl : IKernelImpl {
  std::string name() const override { return "Foreign"; }
  bool Verify() const override { return true; }
};

TEST_F(QueueTest, EnqueueRejectsKernelsOfOtherPlatforms) {
  for (const Kernel& kernel : {Kernel(std::make_shared<ForeignKernelImpl>()), Kernel()}) {
    EXPECT_THROW_MSG(queue_.Enqueue(kernel), std::runtime_error, "Enqueue invalid CPU kernel!");
    EXPECT_THROW_MSG(queue_.Enqueue(kernel, {}), std::runtime_error, "Enqueue invalid CPU kernel!");
  }
}

TEST(QueueLifetimeTest, KernelsAndBuffersOutliveTheSession) {
  std::optional<Session> session(std::in_place, "cpu", 0);
  Queue queue = session->MakeQueue();
  const std::vector<float> data = {1, 2, 3, 4, 5, 6};
  TensorOption in_opt{Shape({2, 3}), kFloat};
  TensorOption out_opt{Shape({3, 2}), kFloat};
  Buffer in = session->MakeBuffer(kMemReadWrite, in_opt.bytes(), const_cast<float*>(data.data()));
  Buffer out = session->MakeBuffer(kMemReadWrite, out_opt.bytes());
  Kernel kernel = Permute::Create(queue, PermuteOption{{1, 0}}, in_opt, in, out_opt, out);
  session.reset();

  EXPECT_THROW_MSG(Permute::Create(queue, PermuteOption{{1, 0}}, in_opt, in, out_opt, out),
                   std::runtime_error, "CPU session has been expired!");
  EXPECT_TRUE(queue.Enqueue(kernel));
  std::vector<float> result(6);
  queue.CopyDeviceToHost(result.data(), out, out_opt.bytes());
  EXPECT_EQ(result, (std::vector<float>{1, 4, 2, 5, 3, 6}));
}

}  // namespace
}  // namespace nerva::cpu::test
