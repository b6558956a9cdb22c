// OpenCL session, queue, buffer and event objects.

#include <cstdlib>
#include <stdexcept>

#include "nerva/platform/cl/buffer_impl.h"
#include "nerva/platform/cl/cl_test_util.h"
#include "nerva/platform/cl/event_impl.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/queue_impl.h"
#include "nerva/platform/cl/util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

template <typename E, typename F>
std::string MessageOf(F&& f) {
  try {
    f();
  } catch (const E& e) {
    return e.what();
  }
  return "<no exception>";
}

TEST(StrErrcodeTest, NamesKnownAndNumbersOthers) {
  const std::pair<int, const char*> cases[] = {
      {0, "CL_SUCCESS"},
      {-5, "CL_OUT_OF_RESOURCES"},
      {-11, "CL_BUILD_PROGRAM_FAILURE"},
      {-19, "CL_KERNEL_ARG_INFO_NOT_AVAILABLE"},
      {-20, "-20"},
      {-25, "-25"},
      {-29, "-29"},
      {-30, "CL_INVALID_VALUE"},
      {-54, "CL_INVALID_WORK_GROUP_SIZE"},
      {-72, "CL_MAX_SIZE_RESTRICTION_EXCEEDED"},
      {-73, "-73"},
      {1, "1"},
      {-1001, "-1001"},
  };
  for (const auto& [code, name] : cases) EXPECT_EQ(StrErrcode(code), name) << code;
}

TEST(SessionTest, TypeSupport) {
  const Session& session = TestSession();
  for (DataType type :
       {kHalf, kFloat, kInt8, kInt16, kInt32, kInt64, kUInt8, kUInt16, kUInt32, kUInt64}) {
    EXPECT_TRUE(session.SupportType(type)) << type;
  }
  EXPECT_FALSE(session.SupportType(kDouble));
  EXPECT_FALSE(session.SupportType(kBool));
  EXPECT_EQ(session.SupportType(kBFloat), TestSessionImpl()->bfloat16_supported());
  EXPECT_EQ(session.SupportType(kFloat8_e4m3fn), TestSessionImpl()->fp8_supported());
  EXPECT_EQ(session.SupportType(kFloat8_e5m2), TestSessionImpl()->fp8_supported());
  int32_t code = 15;
  EXPECT_FALSE(session.GetInfo(kPlatformInfoSupportType, 4, &code, nullptr));
}

TEST(SessionTest, GetInfoArguments) {
  const Session& session = TestSession();
  int64_t value = kFloat;
  EXPECT_FALSE(session.GetInfo(kPlatformInfoNone, 4, &value, nullptr));
  EXPECT_EQ(MessageOf<std::runtime_error>(
                [&] { session.GetInfo(kPlatformInfoSupportType, 8, &value, nullptr); }),
            "Get type info fail, value size error: 8");
  EXPECT_EQ(MessageOf<std::invalid_argument>(
                [&] { session.GetInfo(static_cast<PlatformInfo>(7), 4, &value, nullptr); }),
            "GetInfo fail, unknonw platofrm info 7");
}

TEST(SessionTest, DeviceIdOutOfRange) {
  for (int id : {99, -1}) {
    const std::string message = MessageOf<std::out_of_range>([&] { Session("opencl", id); });
    const std::string prefix =
        "Device id " + std::to_string(id) + " not found, valid device num is ";
    EXPECT_EQ(message.rfind(prefix, 0), 0u) << message;
    EXPECT_EQ(message.back(), '.');
  }
}

TEST(SessionTest, NativeSessionNeedsContextAndDevice) {
  EXPECT_EQ(MessageOf<std::runtime_error>([] { Session("opencl", nullptr, nullptr); }),
            "Make CL session fail, ctx is NULL.");
  cl_context context = TestSessionImpl()->context()();
  EXPECT_EQ(MessageOf<std::runtime_error>([&] { Session("opencl", context, nullptr); }),
            "Make CL session fail, device is NULL.");
}

// A caller's context, device, queue and memory object, released by the caller
// right after wrapping: the wrappers keep their own references.
TEST(SessionTest, WrapsCallerObjects) {
  cl_device_id device = TestSessionImpl()->device()();
  cl_int status = CL_SUCCESS;
  cl_context context = clCreateContext(nullptr, 1, &device, nullptr, nullptr, &status);
  ASSERT_EQ(status, CL_SUCCESS);
  Session session("opencl", context, device);
  cl_command_queue raw_queue =
      clCreateCommandQueueWithProperties(context, device, nullptr, &status);
  ASSERT_EQ(status, CL_SUCCESS);
  cl_mem raw_mem = clCreateBuffer(context, CL_MEM_READ_WRITE, 64, nullptr, &status);
  ASSERT_EQ(status, CL_SUCCESS);
  Queue queue = session.WrapQueue(raw_queue);
  Buffer buffer = session.WrapBuffer(raw_mem);
  clReleaseMemObject(raw_mem);
  clReleaseCommandQueue(raw_queue);
  clReleaseContext(context);

  EXPECT_EQ(buffer.size(), 64);
  EXPECT_EQ(buffer.UnsafeGetPtr(), raw_mem);
  EXPECT_EQ(queue.GetPlatform(), "opencl");
  const std::vector<int32_t> data = {1, 2, 3, 4};
  std::vector<int32_t> back(4);
  queue.CopyHostToDevice(buffer, data.data(), 16);
  queue.CopyDeviceToHost(back.data(), buffer, 16);
  EXPECT_EQ(back, data);
  EXPECT_EQ(MessageOf<std::runtime_error>([&] { session.WrapQueue(nullptr); }),
            "WrapQueue fail, external queue is NULL.");
  EXPECT_EQ(MessageOf<std::runtime_error>([&] { session.WrapBuffer(nullptr); }),
            "WrapBuffer fail, external buffer is NULL.");
}

TEST(SessionTest, MadeQueuesAreKeptWrappedQueuesAreNot) {
  Session session("opencl", 0);
  std::weak_ptr<IQueueImpl> made = session.MakeQueue().impl();
  EXPECT_FALSE(made.expired());
  auto own = std::dynamic_pointer_cast<QueueImpl>(made.lock());
  std::weak_ptr<IQueueImpl> wrapped = session.WrapQueue(own->queue()()).impl();
  EXPECT_TRUE(wrapped.expired());
}

TEST(SessionTest, ObjectsOutlivingTheirSession) {
  Buffer buffer;
  Queue queue;
  {
    Session session("opencl", 0);
    buffer = session.MakeBuffer(kMemReadWrite, 64);
    queue = session.MakeQueue();
  }
  EXPECT_EQ(MessageOf<std::runtime_error>([&] { buffer.UnsafeGetPtr(); }),
            "Get CL buffer pointer fail, the session has been released!");
  Tensor x(TensorOption{Shape({4}), kFloat}, buffer, 0);
  EXPECT_EQ(
      MessageOf<std::runtime_error>([&] { Activation::Create(queue, ActivationOption{}, x, x); }),
      "CL session has been expired!");
}

TEST(SessionTest, RegistryLookups) {
  auto impl = TestSession().impl();
  std::shared_ptr<ISessionImpl> session = impl;
  EXPECT_EQ(MessageOf<std::runtime_error>([&] { impl->MakeBuffer("Pinned", session); }),
            "CL not support Allocator: Pinned");
  EXPECT_EQ(MessageOf<std::runtime_error>([&] { impl->EncodeCoef("MatMul", session); }),
            "CL not support CoefEncoder: MatMul");
  EXPECT_EQ(MessageOf<std::runtime_error>([] { TestQueue()->CreateKernel("NoSuchOp"); }),
            "CL not support kernel: NoSuchOp");
  const ClModule& module = ClModule::singleton();
  EXPECT_EQ(module.platform(), "CL");
  EXPECT_EQ(module.allocators().size(), 1u);
  EXPECT_NE(module.FindAllocator("MakeBuffer"), nullptr);
  EXPECT_TRUE(module.encoders().empty());
  EXPECT_NE(module.FindKernel("Activation"), nullptr);
  EXPECT_NE(module.FindKernel("ActivationV1"), nullptr);
}

TEST(SessionTest, SignatureMismatch) {
  TensorOption opt{Shape({4}), kFloat};
  const Buffer in = TestSession().MakeBuffer(kMemReadWrite, 16);
  const Buffer out = in;
  const std::string message = MessageOf<std::runtime_error>(
      [&] { TestQueue()->CreateKernel("ActivationV1", ActivationOption{}, opt, in, opt, out); });
  EXPECT_NE(message.find("Function signature mismatch"), std::string::npos) << message;
  EXPECT_NE(message.find("const TensorOption&, Buffer&) vs ("), std::string::npos) << message;
}

TEST(BufferTest, MemoryFlagMapping) {
  struct Case {
    unsigned long flags;
    bool host_ptr;
    cl_mem_flags expected;
  } cases[] = {
      {kMemDefault, false, 0},
      {kMemWriteOnly, false, CL_MEM_WRITE_ONLY},
      {kMemReadWrite, false, CL_MEM_READ_WRITE},
      {kMemUseHostPtr, false, 0},
      {kMemDefault, true, CL_MEM_COPY_HOST_PTR},
      {kMemReadWrite | kMemUseHostPtr, true, CL_MEM_READ_WRITE | CL_MEM_USE_HOST_PTR},
      {kMemWriteOnly, true, CL_MEM_WRITE_ONLY | CL_MEM_COPY_HOST_PTR},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(ToClMemFlags(c.flags, c.host_ptr), c.expected) << c.flags << " " << c.host_ptr;
  }
}

TEST(BufferTest, HostPointerCopiesAndViews) {
  std::vector<float> host(256);
  for (size_t i = 0; i < host.size(); ++i) host[i] = static_cast<float>(i);
  Buffer copied = TestSession().MakeBuffer(kMemReadWrite, 1024, host.data());
  Buffer used = TestSession().MakeBuffer(kMemUseHostPtr, 1024, host.data());
  for (const Buffer& buffer : {copied, used}) {
    std::vector<float> back(256);
    TestQueue().CopyDeviceToHost(back.data(), buffer, 1024);
    EXPECT_EQ(back, host);
  }
  Buffer view = copied.View(512, 256, kMemReadWrite);
  EXPECT_EQ(view.size(), 256);
  std::vector<float> part(64);
  TestQueue().CopyDeviceToHost(part.data(), view, 256);
  EXPECT_EQ(part[0], 128.0f);
  EXPECT_EQ(part[63], 191.0f);
  const std::string message =
      MessageOf<std::runtime_error>([&] { copied.View(1024, 1024, kMemReadWrite); });
  EXPECT_EQ(message.rfind("Create CL sub buffer fail, reason :", 0), 0u) << message;
}

TEST(QueueTest, DeviceCopyAndFill) {
  Buffer a = TestSession().MakeBuffer(kMemReadWrite, 64);
  Buffer b = TestSession().MakeBuffer(kMemReadWrite, 64);
  const int32_t pattern = 7;
  Queue& queue = TestQueue();
  Event fill = queue.FillBuffer(a, &pattern, sizeof(pattern), 0, 64);
  Event copy = queue.CopyDeviceToDevice(b, a, 64);
  queue.WaitFor({fill, copy});
  queue.Wait();
  std::vector<int32_t> back(16);
  queue.CopyDeviceToHost(back.data(), b, 64);
  EXPECT_EQ(back, std::vector<int32_t>(16, 7));
}

TEST(QueueTest, CopiesAtByteOffsets) {
  std::vector<uint8_t> data(77);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7 + 1);
  Buffer a = TestSession().MakeBuffer(kMemReadWrite, 77);
  Buffer b = TestSession().MakeBuffer(kMemReadWrite, 77);
  Queue& queue = TestQueue();
  queue.CopyHostToDevice(a, data.data(), 77);
  const uint8_t zero = 0;
  queue.FillBuffer(b, &zero, 1, 0, 77);
  queue.CopyDeviceToDevice(b, 5, a, 3, 61);
  queue.CopyHostToDevice(b, 70, data.data(), 7);
  std::vector<uint8_t> back(77), want(77, 0);
  std::copy(data.begin() + 3, data.begin() + 64, want.begin() + 5);
  std::copy(data.begin(), data.begin() + 7, want.begin() + 70);
  queue.CopyDeviceToHost(back.data(), b, 77);
  EXPECT_EQ(back, want);
  std::vector<uint8_t> part(9);
  queue.CopyDeviceToHost(part.data(), b, 11, 9);
  EXPECT_EQ(part, std::vector<uint8_t>(want.begin() + 11, want.begin() + 20));
  EXPECT_THROW(queue.CopyDeviceToDevice(b, 20, a, 0, 61), std::invalid_argument);
  EXPECT_THROW(queue.CopyDeviceToHost(part.data(), a, 70, 9), std::invalid_argument);
}

TEST(QueueTest, EnqueueRejectsForeignKernels) {
  EXPECT_EQ(MessageOf<std::runtime_error>([] { TestQueue().Enqueue(Kernel()); }),
            "Enqueue invalid CL kernel, please compile it first!");
  EXPECT_EQ(ToClEvent(Event())(), nullptr);
  EXPECT_EQ(ToClEventVector({Event(), Event()}).size(), 2u);
}

TEST(QueueTest, ProfilingSwitch) {
  ScopedEnv env("NERVA_PROFILING", nullptr);
  const std::pair<const char*, bool> cases[] = {{"1", true},    {"true", true}, {"True", true},
                                                {"TRUE", true}, {"yes", false}, {"on", false},
                                                {"0", false},   {"", false}};
  for (const auto& [value, enabled] : cases) {
    env.Set(value);
    EXPECT_EQ(ProfilingEnabledByEnv(), enabled) << value;
  }
  env.Set(nullptr);
  EXPECT_FALSE(ProfilingEnabledByEnv());

  // A profiling queue waits for every unit and reads its times.
  env.Set("1");
  Queue queue = TestSession().MakeQueue();
  ASSERT_TRUE(std::dynamic_pointer_cast<QueueImpl>(queue.impl())->profiling());
  std::vector<float> input(1000, -2.0f);
  input[3] = 3.0f;
  Tensor x = Upload(input, {1000}, kFloat), y = TestSession().MakeTensor({1000}, kFloat);
  queue.Enqueue(Activation::Create(queue, ActivationOption{}, x, y));
  std::vector<float> out(1000);
  queue.CopyDeviceToHost(out.data(), y.storage(), 4000);
  EXPECT_EQ(out[3], 3.0f);
  EXPECT_EQ(out[4], 0.0f);
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
