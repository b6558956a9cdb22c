// The kernel frame: units, argument encoding, work ranges and enqueue chaining.

#include <chrono>
#include <stdexcept>
#include <thread>

#include "nerva/platform/cl/cl_test_util.h"
#include "nerva/platform/cl/event_impl.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/queue_impl.h"
#include "nerva/platform/cl/util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

const char kFrameSource[] = R"(
__kernel void AddOne(DECL_TENSOR1D(x), DECL_TENSOR1D(y)) {
  const int i = get_global_id(0);
  *TENSOR1D_PTR(y, float, i) = *TENSOR1D_PTR(x, float, i) + 1.0f;
}
__kernel void Twice(DECL_TENSOR1D(y), DECL_TENSOR1D(z)) {
  *TENSOR1D_WI_PTR(z, float) = *TENSOR1D_WI_PTR(y, float) * 2.0f;
}
__kernel void TensorArgs(DECL_TENSOR3D(t), __global uint* out) {
  out[0] = t_stride_x; out[1] = t_step_x; out[2] = t_stride_y; out[3] = t_step_y;
  out[4] = t_stride_z; out[5] = t_step_z; out[6] = t_offset_first_element_in_bytes;
  out[7] = *TENSOR3D_PTR(t, uint, 1, 2, 1);
}
)";

// z = (x + 1) * 2 in two units; the second reads what the first writes.
class TwoUnitKernel : public KernelImpl {
 public:
  TwoUnitKernel(Tensor x, Tensor y, Tensor z)
      : KernelImpl("TwoUnit"), x_(std::move(x)), y_(std::move(y)), z_(std::move(z)) {}
  bool Verify() const override { return true; }
  void Compile(std::shared_ptr<SessionImpl> session) override {
    SourceManager::singleton().AddClSource("nerva_test_frame.cl", kFrameSource);
    const std::vector<std::string> sources = {"common.h", "nerva_test_frame.cl"};
    const size_t n = static_cast<size_t>(x_.shape().size());
    MakeSubKernel(session, "Frame::test", sources, BuildOption(), "AddOne")
        ->SetArgs(std::vector<ClTensor>{ClTensor(x_), ClTensor(y_)})
        .SetGlobal({n});
    MakeSubKernel(session, "Frame::test", sources, BuildOption(), "Twice")
        ->SetArg(ClTensor(y_))
        .SetArg(ClTensor(z_))
        .SetGlobal({n});
  }

 private:
  Tensor x_, y_, z_;
};

TEST(KernelUnitTest, GlobalRanges) {
  auto kernel = std::make_shared<TwoUnitKernel>(TestSession().MakeTensor({4}, kFloat),
                                                TestSession().MakeTensor({4}, kFloat),
                                                TestSession().MakeTensor({4}, kFloat));
  kernel->Compile(TestSessionImpl());
  KernelUnit& unit = *kernel->units()[0];
  struct Case {
    std::vector<size_t> global, steps, expected;
  } cases[] = {
      {{10, 7}, {4}, {3, 7}}, {{8}, {}, {8}},  {{9, 9, 9}, {2, 3, 4}, {5, 3, 3}},
      {{}, {}, {}},           {{1}, {4}, {1}},
  };
  for (const Case& c : cases) {
    unit.SetGlobal(c.global, c.steps);
    ASSERT_EQ(unit.global().dimensions(), c.expected.size());
    for (size_t i = 0; i < c.expected.size(); ++i) EXPECT_EQ(unit.global()[i], c.expected[i]);
  }
  try {
    unit.SetGlobal({8}, {1, 1});
    ADD_FAILURE();
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "Invalid step size 2 > global size 1");
  }
  try {
    unit.SetGlobal({1, 2, 3, 4});
    ADD_FAILURE();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "CL don't support ndrange size greater than 3.");
  }
  unit.SetGlobal({10, 7}).SetLocal({4, 2});
  EXPECT_EQ(unit.global()[0], 12u);
  EXPECT_EQ(unit.global()[1], 8u);
  EXPECT_EQ(unit.local().dimensions(), 2u);
}

TEST(KernelFrameTest, AdjustVecSize) {
  const std::tuple<int, long, int> cases[] = {
      {4, 1, 1}, {4, 2, 2}, {4, 3, 3},  {4, 4, 4},     {4, 5, 4}, {4, 7, 4}, {8, 3, 3},
      {3, 3, 3}, {2, 3, 2}, {16, 9, 8}, {16, 100, 16}, {1, 3, 1}, {8, 6, 4},
  };
  for (const auto& [requested, length, expected] : cases) {
    EXPECT_EQ(AdjustVecSize(requested, length), expected) << requested << " " << length;
  }
  try {
    AdjustVecSize(17, 100);
    ADD_FAILURE();
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "Adjust invalid vec_size=17");
  }
  EXPECT_EQ(AdjustGlobalSizeWithLocal({10, 7, 3}, {4, 7}), (std::vector<size_t>{12, 7, 3}));
}

TEST(ClTensorTest, ReversedContiguousStridesAndSteps) {
  Tensor t = TestSession().MakeTensor({2, 3, 4}, kFloat);
  ClTensor reversed(t, 4);
  EXPECT_EQ(reversed.strides(), (std::vector<uint32_t>{4, 16, 48}));
  EXPECT_EQ(reversed.steps(), (std::vector<uint32_t>{16, 16, 48}));
  EXPECT_EQ(reversed.shape().sizes(), (std::vector<long>{4, 3, 2}));
  EXPECT_EQ(reversed.arg_count(), 8u);
  EXPECT_EQ(reversed.mem(), t.storage().UnsafeGetPtr());

  ClTensor plain(t.shape(), kHalf, t.storage(), {1, 2}, 6, false);
  EXPECT_EQ(plain.strides(), (std::vector<uint32_t>{24, 8, 2}));
  EXPECT_EQ(plain.steps(), (std::vector<uint32_t>{24, 16, 2}));
  EXPECT_EQ(plain.offset(), 6u);
  EXPECT_EQ(plain.dtype(), kHalf);

  ClTensor strided(Shape({2, 3}), kFloat, t.storage(), {}, 0, true, std::vector<long>{40, 8});
  EXPECT_EQ(strided.strides(), (std::vector<uint32_t>{8, 40}));

  try {
    ClTensor undefined{Tensor()};
    ADD_FAILURE();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Cannot convert undefined tensor to cltensor.");
  }
}

// A rank-3 tensor is 8 kernel arguments; the device sees exactly their values.
TEST(ClTensorTest, Rank3ArgumentsOnTheDevice) {
  auto kernel = std::make_shared<TwoUnitKernel>(TestSession().MakeTensor({4}, kFloat),
                                                TestSession().MakeTensor({4}, kFloat),
                                                TestSession().MakeTensor({4}, kFloat));
  kernel->Compile(TestSessionImpl());  // builds the frame program
  auto unit = TestSessionImpl()
                  ->LoadOrBuildProgram<ClSourceProgram>("Frame::test()", {}, BuildOption())
                  ->CreateKernel("TensorArgs");
  std::vector<uint32_t> data(2 * 3 * 4 + 2);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint32_t>(i);
  Tensor storage = Upload(data, {static_cast<long>(data.size())}, kUInt32);
  ClTensor t(Shape({2, 3, 4}), kUInt32, storage.storage(), {4}, 8, true);
  Buffer out = TestSession().MakeBuffer(kMemReadWrite, 8 * sizeof(uint32_t));
  unit->SetArgs(t, out).SetGlobal({1});
  EXPECT_EQ(unit->arg_count(), 9u);
  std::vector<uint32_t> values(8);
  // Enqueue the bare unit through the queue's command queue.
  auto queue = std::dynamic_pointer_cast<QueueImpl>(TestQueue().impl());
  ASSERT_EQ(queue->queue().enqueueNDRangeKernel(unit->kernel(), ::cl::NullRange, unit->global()),
            CL_SUCCESS);
  TestQueue().CopyDeviceToHost(values.data(), out, 8 * sizeof(uint32_t));
  // Element (x=1, y=2, z=1) = 8 bytes offset + 1*4 + 2*16 + 1*48 bytes = element 23.
  EXPECT_EQ(values, (std::vector<uint32_t>{4, 16, 16, 16, 48, 48, 8, 23}));
}

// OpenCL does not retain memory set as an argument: a view made while
// compiling (a sub-buffer) must live as long as the unit bound to it.
TEST(KernelUnitTest, KeepsBoundViewsAlive) {
  auto kernel = std::make_shared<TwoUnitKernel>(TestSession().MakeTensor({4}, kFloat),
                                                TestSession().MakeTensor({4}, kFloat),
                                                TestSession().MakeTensor({4}, kFloat));
  kernel->Compile(TestSessionImpl());
  KernelUnit& unit = *kernel->units()[1];
  Buffer root = TestSession().MakeBuffer(kMemReadWrite, 4096);
  std::weak_ptr<IBufferImpl> y_view, z_view;
  {
    Buffer y = root.View(0, 64, kMemDefault), z = root.View(1024, 64, kMemDefault);
    y_view = y.impl();
    z_view = z.impl();
    unit.SetArgs(ClTensor(Shape({4}), kFloat, y, {1}, 0, true));
    unit.SetArg(ClTensor(Shape({4}), kFloat, z, {1}, 0, true));
  }
  EXPECT_FALSE(y_view.expired());
  EXPECT_FALSE(z_view.expired());
}

TEST(KernelFrameTest, ChainedUnitsRunInOrder) {
  std::vector<float> input = {1, 2, 3, 4, 5};
  Tensor x = Upload(input, {5}, kFloat);
  Tensor y = TestSession().MakeTensor({5}, kFloat), z = TestSession().MakeTensor({5}, kFloat);
  auto kernel = std::make_shared<TwoUnitKernel>(x, y, z);
  kernel->Compile(TestSessionImpl());
  ASSERT_EQ(kernel->units().size(), 2u);
  TestQueue().Enqueue(Kernel(kernel));
  EXPECT_EQ(Download<float>(z, 5), (std::vector<float>{4, 6, 8, 10, 12}));
}

// On an out-of-order queue only the wait lists order the units: while the
// caller's event is pending, neither unit may run, and the result shows
// that the second unit saw the first one's output.
TEST(KernelFrameTest, SecondUnitWaitsOnFirst) {
  auto session = TestSessionImpl();
  cl_int status = CL_SUCCESS;
  cl_queue_properties props[] = {CL_QUEUE_PROPERTIES, CL_QUEUE_OUT_OF_ORDER_EXEC_MODE_ENABLE, 0};
  cl_command_queue raw =
      clCreateCommandQueueWithProperties(session->context()(), session->device()(), props, &status);
  if (status != CL_SUCCESS) GTEST_SKIP() << "no out-of-order queue: " << StrErrcode(status);
  Queue queue;
  {
    // A profiling queue waits for each unit to finish before the next, which
    // the gate below would never allow.
    ScopedEnv no_profiling("NERVA_PROFILING", nullptr);
    queue = TestSession().WrapQueue(raw);
  }
  clReleaseCommandQueue(raw);

  Tensor x = Upload(std::vector<float>{1, 2, 3, 4}, {4}, kFloat);
  Tensor y = TestSession().MakeTensor({4}, kFloat), z = TestSession().MakeTensor({4}, kFloat);
  auto kernel = std::make_shared<TwoUnitKernel>(x, y, z);
  kernel->Compile(session);
  ::cl::UserEvent gate(session->context());
  Event done = queue.Enqueue(Kernel(kernel), {MakeEvent<EventImpl>(gate)});
  ::cl::Event last = ToClEvent(done);
  clFlush(std::dynamic_pointer_cast<QueueImpl>(queue.impl())->queue()());
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_NE(last.getInfo<CL_EVENT_COMMAND_EXECUTION_STATUS>(), CL_COMPLETE);
  gate.setStatus(CL_COMPLETE);
  queue.WaitFor({done});
  std::vector<float> out(4);
  queue.CopyDeviceToHost(out.data(), z.storage(), 16);
  EXPECT_EQ(out, (std::vector<float>{4, 6, 8, 10}));
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
