// Lifetime and endurance of the CPU platform's handles: every handle used
// after its session is gone, many sessions with many kernels in a row, and
// one kernel run many times.

#include <optional>
#include <vector>

#include "nerva/nerva.h"
#include "nerva/test_util.h"

namespace nerva::test {
namespace {

constexpr long kRows = 3, kCols = 5;

// The [kCols, kRows] transpose of a row-major [kRows, kCols] matrix.
std::vector<float> Transposed(const std::vector<float>& in) {
  std::vector<float> out(in.size());
  for (long r = 0; r < kRows; ++r)
    for (long c = 0; c < kCols; ++c) out[c * kRows + r] = in[r * kCols + c];
  return out;
}

std::vector<float> Values(float first) {
  std::vector<float> values(kRows * kCols);
  for (size_t i = 0; i < values.size(); ++i) values[i] = first + 0.25f * static_cast<float>(i);
  return values;
}

// A transpose kernel on a session's queue, with its buffers.
struct TransposeJob {
  TensorOption in_opt{Shape({kRows, kCols}), kFloat};
  TensorOption out_opt{Shape({kCols, kRows}), kFloat};
  Buffer in, out;
  Kernel kernel;

  TransposeJob(Session& session, Queue& queue, const std::vector<float>& data)
      : in(session.MakeBuffer(kMemReadWrite, in_opt.bytes())),
        out(session.MakeBuffer(kMemReadWrite, out_opt.bytes())) {
    queue.CopyHostToDevice(in, data.data(), in_opt.bytes());
    kernel = Create(queue);
  }
  Kernel Create(Queue& queue) {
    return Permute::Create(queue, PermuteOption{{1, 0}}, in_opt, in, out_opt, out);
  }
  std::vector<float> Result(Queue& queue) const {
    std::vector<float> result(kRows * kCols);
    queue.CopyDeviceToHost(result.data(), out, out_opt.bytes());
    return result;
  }
};

TEST(CpuRobustnessTest, HandlesAfterTheirSessionIsGone) {
  std::optional<Session> session(std::in_place, "cpu", 0);
  Queue queue = session->MakeQueue();
  const std::vector<float> data = Values(1.0f);
  TransposeJob job(*session, queue, data);
  Buffer view = job.in.View(4, 8, kMemReadWrite);
  Tensor tensor(job.in_opt, job.in, 0);
  Event event = queue.Enqueue(job.kernel);
  std::weak_ptr<ISessionImpl> watch = session->impl();
  session.reset();
  ASSERT_TRUE(watch.expired());

  // Nothing new comes from a queue whose session is gone.
  EXPECT_THROW_MSG(job.Create(queue), std::runtime_error, "CPU session has been expired!");
  EXPECT_THROW_MSG(queue->CreateKernel("NoSuchKernel"), std::runtime_error,
                   "CPU session has been expired!");
  EXPECT_THROW_MSG(queue.GetPlatform(), std::runtime_error, "CPU session has been expired!");
  // What exists keeps working: host buffers, views, copies, kernels, events, tensors.
  const std::vector<float> other = Values(-4.0f);
  queue.CopyHostToDevice(job.in, other.data(), job.in_opt.bytes());
  EXPECT_TRUE(queue.Enqueue(job.kernel, {event}));
  queue.WaitFor({event});
  queue.Wait();
  EXPECT_EQ(job.Result(queue), Transposed(other));
  std::vector<float> part(2);
  queue.CopyDeviceToHost(part.data(), view, 8);
  EXPECT_EQ(part, (std::vector<float>{other[1], other[2]}));
  queue.CopyDeviceToDevice(view.View(0, 4, kMemReadWrite), job.out, 4);
  EXPECT_EQ(static_cast<const float*>(job.in.UnsafeGetPtr())[1], other[0]);
  EXPECT_EQ(tensor.Transpose({1, 0}).shape().sizes(), (std::vector<long>{kCols, kRows}));
  EXPECT_EQ(tensor.Reshape({kRows * kCols}).option().bytes(), job.in_opt.bytes());
}

// 100 sessions with 100 kernel creations and runs each: every run is right,
// and resident memory after them is what it was after the first session.
TEST(CpuRobustnessTest, ManySessionsAndKernelsKeepMemoryFlat) {
  constexpr int kSessions = 100, kKernelsPerSession = 100;
  long baseline = -1;
  for (int s = 0; s < kSessions; ++s) {
    Session session("cpu", 0);
    Queue queue = session.MakeQueue();
    const std::vector<float> data = Values(static_cast<float>(s));
    TransposeJob job(session, queue, data);
    for (int k = 0; k < kKernelsPerSession; ++k) queue.Enqueue(job.Create(queue));
    ASSERT_EQ(job.Result(queue), Transposed(data)) << "session " << s;
    if (s == 0) baseline = ResidentBytes();
  }
  const long growth = ResidentBytes() - baseline;
  if (!kAddressSanitizer) {
    EXPECT_LT(growth, 4L << 20) << "resident memory grew by " << growth;
  }
}

TEST(CpuRobustnessTest, KernelRunThousandTimesGivesTheSameResult) {
  Session session("cpu", 0);
  Queue queue = session.MakeQueue();
  const std::vector<float> data = Values(0.5f);
  TransposeJob job(session, queue, data);
  const std::vector<float> expected = Transposed(data);
  for (int run = 0; run < 1000; ++run) {
    queue.Enqueue(job.kernel);
    ASSERT_EQ(job.Result(queue), expected) << "run " << run;
  }
}

}  // namespace
}  // namespace nerva::test
