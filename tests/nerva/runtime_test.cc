#include <gtest/gtest.h>

#include "fake_platform.h"
#include "nerva/nerva.h"
#include "test_util.h"

namespace nerva {
namespace {

using test::FakeQueueImpl;
using test::FakeSessionImpl;

TEST(Session, PlatformChoice) {
  EXPECT_EQ(GetDefautPlatform(), "opencl");
  EXPECT_EQ(&GetDefautPlatform(), &GetDefautPlatform());
  EXPECT_THROW_MSG(Session("cuda", 0), std::invalid_argument, "Unsupport platform \"cuda\"");
  EXPECT_THROW_MSG(Session("", 0), std::invalid_argument, "Unsupport platform \"\"");
  EXPECT_THROW_MSG(Session("cpu", nullptr, nullptr), std::invalid_argument,
                   "Only support create session from ctx and device for opencl platform, got cpu");
}

class SessionTest : public ::testing::Test {
 protected:
  std::shared_ptr<FakeSessionImpl> fake = std::make_shared<FakeSessionImpl>();
  Session session{fake};
};

TEST_F(SessionTest, MakeBufferGoesThroughTheRegisteredAllocator) {
  Buffer buffer = session.MakeBuffer(kMemReadWrite, 40, nullptr);
  EXPECT_EQ(buffer.size(), 40);
  EXPECT_EQ(fake->last_allocator, "MakeBuffer");
  EXPECT_EQ(fake->last_signature, "std::shared_ptr<ISessionImpl>&, MemoryFlags&, long&, void*&");
}

TEST_F(SessionTest, MakeTensorIsContiguousAtOffsetZero) {
  Tensor t = session.MakeTensor({2, 3, 4}, kHalf);
  EXPECT_EQ(t.storage().size(), 48);
  EXPECT_EQ(t.storage_offset(), 0);
  EXPECT_EQ(t.option().shape.strides(), (std::vector<long>{12, 4, 1}));
  EXPECT_TRUE(t.is_contiguous());
  EXPECT_TRUE(t.defined());
}

TEST_F(SessionTest, MakeTensorRejectsEmptySizes) {
  EXPECT_THROW_MSG(session.MakeTensor({}, kFloat), std::runtime_error,
                   "Make tensor fail with size [] and dtype DataType::kFloat");
  EXPECT_THROW_MSG(session.MakeTensor({0, 4}, kInt8), std::runtime_error,
                   "Make tensor fail with size [0, 4] and dtype DataType::kInt8");
  EXPECT_TRUE(fake->last_allocator.empty());
}

TEST_F(SessionTest, SupportTypeAsksWithAFourByteCode) {
  EXPECT_TRUE(session.SupportType(kFloat));
  EXPECT_EQ(fake->last_info, kPlatformInfoSupportType);
  EXPECT_EQ(fake->last_param_size, 4u);
  EXPECT_FALSE(session.SupportType(kUInt64));
  EXPECT_EQ(fake->last_type, kUInt64);
}

TEST(Queue, CopyArgumentChecksNameDestinationFirst) {
  Queue queue(std::make_shared<FakeQueueImpl>());
  Buffer buffer = MakeBuffer<test::FakeBufferImpl>(16);
  char host[16] = {};
  EXPECT_THROW_MSG(queue.CopyDeviceToHost(nullptr, Buffer(), 16), std::invalid_argument,
                   "Copy device to host fail, unexpected null dest buffer!");
  EXPECT_THROW_MSG(queue.CopyDeviceToHost(host, Buffer(), 16), std::invalid_argument,
                   "Copy device to host fail, unexpected null src buffer!");
  EXPECT_THROW_MSG(queue.CopyHostToDevice(Buffer(), nullptr, 16), std::invalid_argument,
                   "Copy host to device fail, unexpected null dest buffer!");
  EXPECT_THROW_MSG(queue.CopyHostToDevice(buffer, nullptr, 16), std::invalid_argument,
                   "Copy host to device fail, unexpected null src buffer!");
  EXPECT_THROW_MSG(queue.CopyDeviceToDevice(Buffer(), Buffer(), 16), std::invalid_argument,
                   "Copy device to device fail, unexpected null dest buffer!");
  EXPECT_THROW_MSG(queue.CopyDeviceToDevice(buffer, Buffer(), 16), std::invalid_argument,
                   "Copy device to host fail, unexpected null src buffer!");
  EXPECT_NO_THROW(queue.CopyDeviceToHost(host, buffer, 16));
}

// Kernels of the test module, built from what the registry hands over.
class RecordingKernel : public test::FakeKernelImpl {
 public:
  RecordingKernel(const TensorOption& in_opt, const Buffer&, const TensorOption&, Buffer& out)
      : FakeKernelImpl("Recording", ""), in_bytes(in_opt.bytes()), out_size(out.size()) {}
  long in_bytes;
  long out_size;
};

class RejectingKernel : public test::FakeKernelImpl {
 public:
  explicit RejectingKernel(const Tensor&) : FakeKernelImpl("Rejecting", "", false) {}
};

struct RegisterTestKernels {
  RegisterTestKernels() {
    auto& module = test::FakeModule::singleton();
    module.AddKernel<RecordingKernel, const TensorOption&, const Buffer&, const TensorOption&,
                     Buffer&>("Recording");
    module.AddKernel<RejectingKernel, const Tensor&>("Rejecting");
  }
};
const RegisterTestKernels kRegisterTestKernels;

class RegistryTest : public ::testing::Test {
 protected:
  std::shared_ptr<FakeQueueImpl> queue = std::make_shared<FakeQueueImpl>();
  const TensorOption opt{Shape{2, 2}, kFloat};
  Buffer in = MakeBuffer<test::FakeBufferImpl>(16);
  Buffer out = MakeBuffer<test::FakeBufferImpl>(32);
};

TEST_F(RegistryTest, MatchingSignatureReachesTheCreator) {
  const Buffer& const_in = in;
  Kernel kernel = queue->CreateKernel("Recording", opt, const_in, opt, out);
  auto* impl = dynamic_cast<RecordingKernel*>(kernel.get());
  ASSERT_NE(impl, nullptr);
  EXPECT_EQ(impl->in_bytes, 16);
  EXPECT_EQ(impl->out_size, 32);
}

TEST_F(RegistryTest, ConstOutputIsASignatureMismatch) {
  const Buffer& const_in = in;
  const Buffer& const_out = out;
  EXPECT_THROW_MSG(queue->CreateKernel("Recording", opt, const_in, opt, const_out),
                   std::runtime_error,
                   "Kernel \"Recording\" Function signature mismatch: (const TensorOption&, const "
                   "Buffer&, const TensorOption&, Buffer&) vs (const TensorOption&, const Buffer&, "
                   "const TensorOption&, const Buffer&).");
}

TEST_F(RegistryTest, VectorAndElementShareATextButNotAType) {
  const std::vector<TensorOption> opts{opt};
  const Buffer& const_in = in;
  EXPECT_THROW_MSG(queue->CreateKernel("Recording", opts, const_in, opt, out), std::runtime_error,
                   "Kernel \"Recording\" Function signature mismatch: (const TensorOption&, const "
                   "Buffer&, const TensorOption&, Buffer&) vs (const TensorOption&, const Buffer&, "
                   "const TensorOption&, Buffer&).");
}

TEST_F(RegistryTest, VerifyFailureIsReported) {
  Tensor t(opt, in, 0);
  const Tensor& ct = t;
  EXPECT_THROW_MSG(queue->CreateKernel("Rejecting", ct), std::runtime_error,
                   "FAKE kernel \"Rejecting\" verify fail.");
}

TEST_F(RegistryTest, UnknownNamesReachThePlatform) {
  long n = 3;
  Kernel kernel = queue->CreateKernel("NoSuchKernel", n);
  EXPECT_EQ(kernel.name(), "NoSuchKernel");
  EXPECT_EQ(queue->last_signature, "long&");
}

TEST(Module, DuplicateRegistrationIsRefused) {
  Module<test::FakeKernelImpl> module("CL");
  module.AddKernel<RejectingKernel, const Tensor&>("Twice");
  EXPECT_THROW_MSG((module.AddKernel<RejectingKernel, const Tensor&>("Twice")), std::runtime_error,
                   "Duplicate registration of kernel \"Twice\" on platform CL");
  auto allocate = [](long) { return Buffer(); };
  module.AddAllocatorImpl("MakeBuffer", MakeFunctionWrapper<Buffer, long>("MakeBuffer", allocate));
  EXPECT_THROW_MSG(module.AddAllocatorImpl(
                       "MakeBuffer", MakeFunctionWrapper<Buffer, long>("MakeBuffer", allocate)),
                   std::runtime_error,
                   "Duplicate registration of allocator \"MakeBuffer\" on platform CL");
  EXPECT_NE(module.FindKernel("Twice"), nullptr);
  EXPECT_EQ(module.FindKernel("Once"), nullptr);
  EXPECT_EQ(module.kernels().size(), 1u);
}

TEST(FunctionWrapper, ValueParametersMatchLvalueArguments) {
  FunctionWrapper<long, long, int> add("Add", [](long a, int b) { return a + b; });
  EXPECT_EQ(add.signature(), "long&, int&");
  long a = 40;
  int b = 2;
  FunctionParameters params(a, b);
  EXPECT_EQ(params.pretty_signature(), "long&, int&");
  EXPECT_EQ(add.Call(params), 42);
  int c = 1;
  FunctionParameters wrong(c, b);
  EXPECT_THROW_MSG(add.Call(wrong), std::runtime_error,
                   "Kernel \"Add\" Function signature mismatch: (long&, int&) vs (int&, int&).");
}

TEST(EncodedCoef, CopiesOrZeroFills) {
  const unsigned char bytes[3] = {1, 2, 3};
  EncodedCoef coef("enc", bytes, 3, 7);
  EXPECT_EQ(coef.data, (std::vector<uint8_t>{1, 2, 3}));
  EXPECT_EQ(coef.size, 3u);
  EXPECT_EQ(coef.extra, 7u);
  EXPECT_EQ(EncodedCoef("enc", nullptr, 2, 0).data, (std::vector<uint8_t>{0, 0}));
  EXPECT_THROW_MSG(EncodedCoef("enc", bytes, 0, 0), std::invalid_argument,
                   "Create encoded coef fail, size is 0.");
}

}  // namespace
}  // namespace nerva
