// Lifetime and endurance of the OpenCL platform's handles: every handle used
// after its session is gone, many sessions with many kernels in a row, and
// one kernel enqueued many times.

#include <cmath>
#include <optional>
#include <stdexcept>

#include "nerva/platform/cl/cl_test_util.h"
#include "nerva/test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

using nerva::test::kAddressSanitizer;
using nerva::test::ResidentBytes;

constexpr const char* kBufferGone = "Get CL buffer pointer fail, the session has been released!";
constexpr const char* kSessionGone = "CL session has been expired!";

ActivationOption Sigmoid() {
  ActivationOption option;
  option.op_type = kSigmoid;
  return option;
}

// A sigmoid kernel over `n` floats on a session's queue, with its tensors.
struct SigmoidJob {
  Tensor x, y;
  Kernel kernel;

  SigmoidJob(Session& session, Queue& queue, const std::vector<float>& data)
      : x(session.MakeTensor({static_cast<long>(data.size())}, kFloat)),
        y(session.MakeTensor({static_cast<long>(data.size())}, kFloat)) {
    queue.CopyHostToDevice(x.storage(), data.data(), x.option().bytes());
    kernel = Create(queue);
  }
  Kernel Create(Queue& queue) const { return Activation::Create(queue, Sigmoid(), x, y); }
  std::vector<float> Result(Queue& queue) const {
    std::vector<float> out(static_cast<size_t>(y.shape().size()));
    queue.CopyDeviceToHost(out.data(), y.storage(), y.option().bytes());
    return out;
  }
};

void ExpectSigmoid(const std::vector<float>& in, const std::vector<float>& out) {
  ASSERT_EQ(in.size(), out.size());
  for (size_t i = 0; i < in.size(); ++i) {
    ASSERT_NEAR(out[i], 1 / (1 + std::exp(-static_cast<double>(in[i]))), 2e-6) << i;
  }
}

TEST(ClRobustnessTest, HandlesAfterTheirSessionIsGone) {
  std::optional<Session> session(std::in_place, "opencl", 0);
  Queue queue = session->MakeQueue();
  const std::vector<float> data = RandomFloats(65, -4.0f, 4.0f, 71);
  SigmoidJob job(*session, queue, data);
  Event event = queue.Enqueue(job.kernel);
  queue.Wait();
  Buffer buffer = job.x.storage();
  Buffer view = buffer.View(128, 32, kMemReadWrite);  // sub-buffers start aligned
  std::weak_ptr<ISessionImpl> watch = session->impl();
  session.reset();
  ASSERT_TRUE(watch.expired());

  // Device memory can no longer be reached, through any path.
  float host[8] = {};
  const int pattern = 0;
  EXPECT_THROW_MSG(buffer.UnsafeGetPtr(), std::runtime_error, kBufferGone);
  EXPECT_THROW_MSG(view.UnsafeGetPtr(), std::runtime_error, kBufferGone);
  EXPECT_THROW_MSG(buffer.View(0, 16, kMemReadWrite).UnsafeGetPtr(), std::runtime_error,
                   kBufferGone);
  EXPECT_THROW_MSG(queue.CopyDeviceToHost(host, buffer, 32), std::runtime_error, kBufferGone);
  EXPECT_THROW_MSG(queue.CopyHostToDevice(view, host, 32), std::runtime_error, kBufferGone);
  EXPECT_THROW_MSG(queue.CopyDeviceToDevice(view, buffer, 32), std::runtime_error, kBufferGone);
  EXPECT_THROW_MSG(queue.FillBuffer(buffer, &pattern, sizeof(pattern), 0, 32), std::runtime_error,
                   kBufferGone);
  // No kernel is made any more.
  EXPECT_THROW_MSG(job.Create(queue), std::runtime_error, kSessionGone);
  EXPECT_THROW_MSG(queue->CreateKernel("NoSuchKernel"), std::runtime_error, kSessionGone);
  // Queues, events and descriptors stay usable; sizes are known without the device.
  queue.WaitFor({event});
  queue.Wait();
  EXPECT_EQ(queue.GetPlatform(), "opencl");
  EXPECT_EQ(buffer.size(), 65 * 4);
  EXPECT_EQ(view.size(), 32);
  EXPECT_EQ(job.y.Reshape({5, 13}).shape().sizes(), (std::vector<long>{5, 13}));
  // A kernel made before runs on buffers that its own references keep alive.
  queue.Enqueue(job.kernel);
  queue.Wait();
}

// 100 sessions with 100 kernel creations and enqueues each: every result is
// right, and resident memory after them is what it was after the first few
// sessions (the driver sets up its own state in the first ones). Alone this
// test grows by nothing; after the rest of the suite the driver's heap grows
// by up to about 8 MiB, hence the tolerance. A leaked kernel or session per
// round would exceed it (and LeakSanitizer checks the sanitized run).
TEST(ClRobustnessTest, ManySessionsAndKernelsKeepMemoryFlat) {
  constexpr int kSessions = 100, kKernelsPerSession = 100;
  long baseline = -1;
  for (int s = 0; s < kSessions; ++s) {
    Session session("opencl", 0);
    Queue queue = session.MakeQueue();
    const std::vector<float> data = RandomFloats(257, -6.0f, 6.0f, 1000 + s);
    SigmoidJob job(session, queue, data);
    for (int k = 0; k < kKernelsPerSession; ++k) queue.Enqueue(job.Create(queue));
    ExpectSigmoid(data, job.Result(queue));
    if (HasFatalFailure()) return;
    if (s == 4) baseline = ResidentBytes();
  }
  const long growth = ResidentBytes() - baseline;
  if (!kAddressSanitizer) {
    EXPECT_LT(growth, 16L << 20) << "resident memory grew by " << growth;
  }
}

TEST(ClRobustnessTest, KernelEnqueuedThousandTimesGivesTheSameResult) {
  const std::vector<float> data = RandomFloats(1001, -8.0f, 8.0f, 72);
  SigmoidJob job(TestSession(), TestQueue(), data);
  TestQueue().Enqueue(job.kernel);
  const std::vector<float> first = job.Result(TestQueue());
  ExpectSigmoid(data, first);
  for (int run = 0; run < 1000; ++run) {
    TestQueue().Enqueue(job.kernel);
    ASSERT_EQ(job.Result(TestQueue()), first) << "enqueue " << run;
  }
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
