// The OpenCL frame refuses kernels whose tensors reach outside their buffers,
// device fields that would be truncated, and objects of another platform or
// session; views of views address the right bytes.

#include <limits>

#include "cl_test_util.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/platform/cl/util.h"
#include "nerva/test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

ActivationOption Sigmoid() {
  ActivationOption option;
  option.op_type = kSigmoid;
  return option;
}

TEST(ClSafety, ActivationRefusesUndersizedAndNullBuffers) {
  const TensorOption big{Shape{1 << 20}, kFloat};
  Buffer tiny = TestSession().MakeBuffer(kMemReadWrite, 4);
  Buffer whole = TestSession().MakeBuffer(kMemReadWrite, 4 << 20);
  EXPECT_THROW_HAS(Activation::Create(TestQueue(), Sigmoid(), big, tiny, big, whole),
                   std::invalid_argument,
                   {"ActivationV1", "argument 2", "[0, 4194304)", "holds 4 bytes"});
  EXPECT_THROW_HAS(Activation::Create(TestQueue(), Sigmoid(), big, whole, big, tiny),
                   std::invalid_argument, {"ActivationV1", "argument 4", "holds 4 bytes"});
  // Activation's own check reports a missing buffer first, with its message.
  EXPECT_THROW_MSG(Activation::Create(TestQueue(), Sigmoid(), big, Buffer(), big, whole),
                   std::runtime_error, "Activation x is empty!");
  // A tensor view past the end of its storage is caught the same way.
  Tensor x = TestSession().MakeTensor({16}, kFloat);
  Tensor shifted(TensorOption{Shape{16}, kFloat}, x.storage(), 8);
  EXPECT_THROW_HAS(Activation::Create(TestQueue(), Sigmoid(), shifted, x), std::invalid_argument,
                   {"Activation", "argument 2", "[8, 72)", "holds 64 bytes"});
}

TEST(ClSafety, DeviceFieldsAreNeverTruncated) {
  Tensor t = TestSession().MakeTensor({64}, kFloat);
  Tensor far(TensorOption{Shape{4}, kFloat}, t.storage(), (1L << 32) + 16);
  EXPECT_THROW_HAS(ClTensor{far}, std::runtime_error, {"byte offset 4294967312", "32-bit"});
  // An 8 GiB outer stride does not fit either; refused before any memory check.
  EXPECT_THROW_HAS(
      ClTensor(Shape{2, 2}, kFloat, t.storage(), {}, 0, false, std::vector<long>{1L << 33, 4}),
      std::runtime_error, {"byte stride 8589934592"});
  EXPECT_THROW_HAS(ClTensor(Shape{2, 2}, kFloat, t.storage(), {1u << 30, 1}, 0, false),
                   std::runtime_error, {"byte step"});
  // The explicit-stride form checks the bytes it reaches.
  EXPECT_THROW_HAS(
      ClTensor(Shape{2, 3}, kFloat, t.storage(), {}, 0, true, std::vector<long>{400, 4}),
      std::invalid_argument, {"[0, 412)", "holds 256 bytes"});
}

TEST(ClSafety, AdjustVecSizeForEmptyAndNegativeLengths) {
  EXPECT_EQ(AdjustVecSize(4, -1), 1);
  EXPECT_EQ(AdjustVecSize(4, 0), 1);
  EXPECT_EQ(AdjustVecSize(4, 5), 4);
  EXPECT_THROW(AdjustVecSize(0, 8), std::invalid_argument);
}

TEST(ClSafety, ViewsOfViewsAddressTheRootAtSummedOffsets) {
  std::vector<float> host(256);
  for (size_t i = 0; i < host.size(); ++i) host[i] = static_cast<float>(i) * 0.5f - 7.0f;
  Buffer root = TestSession().MakeBuffer(kMemReadWrite, 1024, host.data());
  Buffer inner = root.View(256, 512, kMemReadWrite).View(128, 256, kMemReadWrite);
  EXPECT_EQ(inner.size(), 256);
  std::vector<float> part(64);
  TestQueue().CopyDeviceToHost(part.data(), inner, 256);
  EXPECT_EQ(part.front(), host[96]);
  EXPECT_EQ(part.back(), host[159]);
  // A write through the innermost view lands in the root.
  std::vector<float> ones(64, 1.0f);
  TestQueue().CopyHostToDevice(inner, ones.data(), 256);
  std::vector<float> back(256);
  TestQueue().CopyDeviceToHost(back.data(), root, 1024);
  EXPECT_EQ(back[95], host[95]);
  EXPECT_EQ(back[96], 1.0f);
  EXPECT_EQ(back[160], host[160]);
  EXPECT_THROW(root.View(256, 512, kMemReadWrite).View(-32, 32, kMemReadWrite), std::runtime_error);
  EXPECT_THROW(root.View(256, 512, kMemReadWrite).View(500, 32, kMemReadWrite), std::runtime_error);
}

TEST(ClSafety, QueueCopiesStayInsideTheBuffer) {
  Buffer buffer = TestSession().MakeBuffer(kMemReadWrite, 16);
  std::vector<char> host(64, 3);
  EXPECT_THROW_HAS(TestQueue().CopyHostToDevice(buffer, host.data(), 64), std::invalid_argument,
                   {"[0, 64)", "16"});
  EXPECT_THROW(TestQueue().CopyDeviceToHost(host.data(), buffer, -4), std::invalid_argument);
  EXPECT_THROW(TestQueue().FillBuffer(buffer, host.data(), 4, 8, 12), std::invalid_argument);
  EXPECT_THROW(TestSession().MakeBuffer(kMemReadWrite, -1), std::invalid_argument);
}

// Objects of one platform or session are refused by another, with a message.
TEST(ClSafety, ForeignPlatformsAndSessionsAreRefused) {
  Session cpu("cpu", 0);
  Queue cpu_queue = cpu.MakeQueue();
  Buffer cl_buffer = TestSession().MakeBuffer(kMemReadWrite, 24);
  Buffer cpu_buffer = cpu.MakeBuffer(kMemDefault, 24);
  std::vector<char> host(24);
  EXPECT_THROW_HAS(cpu_queue.CopyDeviceToHost(host.data(), cl_buffer, 24), std::invalid_argument,
                   {"not a CPU buffer"});
  const TensorOption in{Shape{2, 3}, kFloat};
  const TensorOption out{Shape{3, 2}, kFloat};
  EXPECT_THROW_HAS(
      Permute::Create(cpu_queue, PermuteOption{{1, 0}}, in, cl_buffer, out, cpu_buffer),
      std::invalid_argument, {"Permute", "argument 2", "not a CPU buffer"});
  EXPECT_THROW_HAS(TestQueue().CopyDeviceToHost(host.data(), cpu_buffer, 24), std::invalid_argument,
                   {"not an OpenCL buffer"});
  EXPECT_THROW_HAS(Activation::Create(TestQueue(), Sigmoid(), in, cpu_buffer, in, cl_buffer),
                   std::invalid_argument, {"argument 2", "not an OpenCL buffer"});

  Session other("opencl", 0);
  Queue other_queue = other.MakeQueue();
  Buffer other_buffer = other.MakeBuffer(kMemReadWrite, 24);
  EXPECT_THROW_HAS(Activation::Create(TestQueue(), Sigmoid(), in, other_buffer, in, cl_buffer),
                   std::invalid_argument, {"argument 2", "another session"});
  EXPECT_THROW_HAS(TestQueue().CopyDeviceToHost(host.data(), other_buffer, 24),
                   std::invalid_argument, {"another session"});
  Kernel kernel = Activation::Create(TestQueue(), Sigmoid(), in, cl_buffer, in, cl_buffer);
  EXPECT_THROW_HAS(other_queue.Enqueue(kernel), std::invalid_argument, {"another session"});
  EXPECT_THROW(cpu_queue.Enqueue(kernel), std::runtime_error);
}

TEST(ClSafety, HandlesOutlivingTheirSessionFailWithMessages) {
  Buffer buffer;
  Queue queue;
  {
    Session session("opencl", 0);
    queue = session.MakeQueue();
    buffer = session.MakeBuffer(kMemReadWrite, 16);
  }
  std::vector<char> host(16);
  EXPECT_THROW_MSG(buffer.UnsafeGetPtr(), std::runtime_error,
                   "Get CL buffer pointer fail, the session has been released!");
  EXPECT_THROW_MSG(queue.CopyDeviceToHost(host.data(), buffer, 16), std::runtime_error,
                   "Get CL buffer pointer fail, the session has been released!");
  const TensorOption x{Shape{4}, kFloat};
  EXPECT_THROW_MSG(Activation::Create(queue, Sigmoid(), x, buffer, x, buffer), std::runtime_error,
                   "CL session has been expired!");
  EXPECT_THROW_HAS(Activation::Create(TestQueue(), Sigmoid(), x, buffer, x, buffer),
                   std::invalid_argument, {"released session"});
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
