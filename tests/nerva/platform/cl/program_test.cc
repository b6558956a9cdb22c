// Source registry, build options, program building and the program cache.

#include <stdexcept>

#include "nerva/platform/cl/cl_test_util.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/platform/cl/program.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

// A kernel with one unit from any registered sources, for exercising builds.
class SourceKernel : public KernelImpl {
 public:
  SourceKernel(std::string program, std::vector<std::string> sources, BuildOption options,
               std::string kernel)
      : KernelImpl(kernel),
        program_(std::move(program)),
        sources_(std::move(sources)),
        options_(std::move(options)) {}
  bool Verify() const override { return true; }
  void Compile(std::shared_ptr<SessionImpl> session) override {
    MakeSubKernel(session, program_, sources_, options_, name());
  }

 private:
  std::string program_;
  std::vector<std::string> sources_;
  BuildOption options_;
};

cl_program ProgramOf(const Kernel& kernel) {
  auto impl = std::dynamic_pointer_cast<KernelImpl>(kernel.impl());
  return impl->units().at(0)->kernel().getInfo<CL_KERNEL_PROGRAM>()();
}

TEST(BuildOptionTest, AppendsItemsInOrder) {
  BuildOption options({"-cl-fast-relaxed-math"});
  options.AddDefinition("DTYPE", "float")
      .AddDefinitionAutoType("VEC_SIZE", 4)
      .AddOptionIf(false, "-DSKIPPED")
      .AddOptionIf(true, "-DKEPT")
      .AddDefinitionAutoType("ALPHA", 0.5f)
      .AddDefinitionAutoType("FLAG", true)
      .AddDefinitionAutoType("N", 7L)
      .AddDefinitionAutoType("M", 8UL);
  EXPECT_EQ(options.str(),
            " -cl-fast-relaxed-math -DDTYPE=float -DVEC_SIZE=4 -DKEPT -DALPHA=0.500000000 "
            "-DFLAG=1 -DN=7 -DM=8");
  EXPECT_EQ(BuildOption().str(), "");
}

TEST(BuildOptionTest, DataTypeCodes) {
  const char* expected[] = {"half", "bhalf", "float",  "double", "char",     "short",    "int",
                            "long", "uchar", "ushort", "uint",   "fp8_e4m3", "fp8_e5m2", "char"};
  const DataType types[] = {kHalf,  kBFloat, kFloat,  kDouble, kInt8,          kInt16,       kInt32,
                            kInt64, kUInt8,  kUInt16, kUInt32, kFloat8_e4m3fn, kFloat8_e5m2, kBool};
  for (size_t i = 0; i < 14; ++i) EXPECT_EQ(GetDataTypeCode(types[i]), expected[i]);
  EXPECT_EQ(GetDataTypeCode(kUInt64), "ulong");
  for (int bad : {15, -1}) {
    try {
      GetDataTypeCode(static_cast<DataType>(bad));
      ADD_FAILURE();
    } catch (const std::invalid_argument& e) {
      EXPECT_EQ(std::string(e.what()), "Unsupport data_type: " + std::to_string(bad));
    }
  }
}

TEST(SourceManagerTest, RegistryAndLookups) {
  SourceManager& manager = SourceManager::singleton();
  for (const char* name : {"common.h", "math.h", "nargs.h", "static_assert.h", "activation.cl"}) {
    EXPECT_EQ(manager.sources().count(name), 1u) << name;
  }
  static const char kFirst[] = "// first";
  static const char kSecond[] = "// second";
  manager.AddClSource("nerva_test_dup.cl", kFirst);
  EXPECT_NO_THROW(manager.AddClSource("nerva_test_dup.cl", kSecond));
  const auto texts = manager.Load({"nerva_test_dup.cl", "common.h", "nerva_test_dup.cl"});
  ASSERT_EQ(texts.size(), 3u);
  EXPECT_EQ(texts[0], kFirst);
  EXPECT_EQ(texts[2], kFirst);
  EXPECT_EQ(texts[1], manager.sources().at("common.h"));
  try {
    manager.Load({"common.h", "nope.cl"});
    ADD_FAILURE();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Source \"nope.cl\" was not found.");
  }
}

TEST(ProgramCacheTest, SameKeySharesProgramChangedDefinitionBuildsAnother) {
  auto session = TestSessionImpl();
  Tensor x = TestSession().MakeTensor({64}, kFloat), y = TestSession().MakeTensor({64}, kFloat);
  ActivationOption option;
  option.op_type = kHardSwish;
  Kernel first = Activation::Create(TestQueue(), option, x, y);
  const size_t count = session->program_count();
  Kernel second = Activation::Create(TestQueue(), option, x, y);
  EXPECT_EQ(session->program_count(), count);
  EXPECT_EQ(ProgramOf(first), ProgramOf(second));
  const std::string key =
      "Activation::test( -DOP=HARD_SWISH -DVEC_SIZE=4 -DVEC_SIZE_LEFTOVER=0 -DCONV_DTYPE=float "
      "-DDTYPE=float -DOUT_DTYPE=float)";
  ASSERT_NE(session->TryLoadCachedProgram(key), nullptr);
  EXPECT_EQ(session->TryLoadCachedProgram(key)->program()(), ProgramOf(first));
  EXPECT_EQ(session->TryLoadCachedProgram(key)->name(), key);

  Tensor x63 = TestSession().MakeTensor({63}, kFloat);  // leftover 3: another definition
  Kernel third = Activation::Create(TestQueue(), option, x63, x63);
  EXPECT_EQ(session->program_count(), count + 1);
  EXPECT_NE(ProgramOf(third), ProgramOf(first));
}

TEST(ProgramTest, SyntaxErrorReportsFlagsAndLog) {
  static const char kBroken[] = "__kernel void Broken(__global float* x) { x[0] = ; }\n";
  SourceManager::singleton().AddClSource("nerva_test_broken.cl", kBroken);
  auto session = TestSessionImpl();
  const size_t count = session->program_count();
  SourceKernel kernel("Broken::test", {"nerva_test_broken.cl"},
                      BuildOption().AddDefinition("FOO", "1"), "Broken");
  try {
    kernel.Compile(session);
    ADD_FAILURE();
  } catch (const std::runtime_error& e) {
    const std::string message = e.what();
    const std::string head =
        "Compile CL kernel Broken::test( -DFOO=1) program fail, reason:\nerrcode: "
        "CL_BUILD_PROGRAM_FAILURE\nflags:  -DFOO=1" +
        session->BuildExtensionOptions() + "\n";
    EXPECT_EQ(message.rfind(head, 0), 0u) << message;
    EXPECT_GT(message.size(), head.size() + 10) << "no compiler log: " << message;
    EXPECT_NE(message.find("error"), std::string::npos) << message;
  }
  EXPECT_EQ(session->program_count(), count);  // nothing cached after a failure
}

TEST(ProgramTest, UnknownKernelName) {
  static const char kOne[] = "__kernel void One(__global int* x) { x[0] = 1; }\n";
  SourceManager::singleton().AddClSource("nerva_test_one.cl", kOne);
  SourceKernel kernel("One::test", {"nerva_test_one.cl"}, BuildOption(), "Two");
  try {
    kernel.Compile(TestSessionImpl());
    ADD_FAILURE();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Create CL kernel Two program fail, reason: CL_INVALID_KERNEL_NAME");
  }
}

// MakeSubKernel is callable on any kernel, with the options given as a list.
TEST(ProgramTest, MakeSubKernelFromOutside) {
  static const char kTwo[] = "__kernel void Two(__global int* x) { x[0] = VALUE; }\n";
  SourceManager::singleton().AddClSource("nerva_test_two.cl", kTwo);
  auto kernel =
      std::make_shared<SourceKernel>("Two::test", std::vector<std::string>{}, BuildOption(), "Two");
  auto unit = kernel->MakeSubKernel(TestSessionImpl(), "Two::test", {"nerva_test_two.cl"},
                                    std::vector<std::string>{"-DVALUE=5"}, "Two");
  ASSERT_EQ(kernel->units().size(), 1u);
  EXPECT_EQ(kernel->units()[0], unit);
  EXPECT_NE(TestSessionImpl()->TryLoadCachedProgram("Two::test( -DVALUE=5)"), nullptr);
  Buffer out = TestSession().MakeBuffer(kMemReadWrite, 4);
  unit->SetArgs(out).SetGlobal({1});
  TestQueue().Enqueue(Kernel(kernel));
  int32_t value = 0;
  TestQueue().CopyDeviceToHost(&value, out, 4);
  EXPECT_EQ(value, 5);
}

// The shared headers under the bfloat16 and fp8 switches, with the arity and
// static-assert helpers: conversions of known values through every format.
const char kTypesSource[] = R"(
STATIC_ASSERT(NARGS(a, b, c) == 3, nargs_counts);
__kernel void Types(__global const float* in, __global bhalf* bf, __global fp8_e4m3* e4,
                    __global fp8_e5m2* e5, __global half* h, __global float* back) {
  const int i = get_global_id(0) * 4;
  const float4 v = VLOAD(float, 4, in + i);
  VSTORE(bhalf, 4, CONVERT(bhalf, 4, v), bf + i);
  VSTORE(fp8_e4m3, 4, v, e4 + i);
  VSTORE(fp8_e5m2, 4, v, e5 + i);
  VSTORE(half, 4, v, h + i);
  VSTORE(float, 4, VLOAD(bhalf, 4, bf + i) + VLOAD(fp8_e4m3, 4, e4 + i) +
                   VLOAD(fp8_e5m2, 4, e5 + i) + VLOAD(half, 4, h + i), back + i);
}
)";

TEST(DeviceHeaderTest, NarrowFloatFormats) {
  SourceManager::singleton().AddClSource("nerva_test_types.cl", kTypesSource);
  auto kernel = std::make_shared<SourceKernel>(
      "Types::test",
      std::vector<std::string>{"common.h", "nargs.h", "static_assert.h", "nerva_test_types.cl"},
      BuildOption({"-DNERVA_OPENCL_BFLOAT16_ENABLED", "-DNERVA_OPENCL_FP8_ENABLED"}), "Types");
  kernel->Compile(TestSessionImpl());
  const std::vector<float> input = {1.0f, -2.0f, 448.0f, 1000.0f, 0.0f, 0.5f, -0.375f, 3.0f};
  Tensor in = Upload(input, {8}, kFloat);
  Buffer bf = TestSession().MakeBuffer(kMemReadWrite, 16);
  Buffer e4 = TestSession().MakeBuffer(kMemReadWrite, 8);
  Buffer e5 = TestSession().MakeBuffer(kMemReadWrite, 8);
  Buffer h = TestSession().MakeBuffer(kMemReadWrite, 16);
  Tensor back = TestSession().MakeTensor({8}, kFloat);
  kernel->units()[0]->SetArgs(in.storage(), bf, e4, e5, h, back.storage()).SetGlobal({2});
  TestQueue().Enqueue(Kernel(kernel));
  std::vector<uint16_t> bf_bits(8), h_bits(8);
  std::vector<uint8_t> e4_bits(8), e5_bits(8);
  TestQueue().CopyDeviceToHost(bf_bits.data(), bf, 16);
  TestQueue().CopyDeviceToHost(e4_bits.data(), e4, 8);
  TestQueue().CopyDeviceToHost(e5_bits.data(), e5, 8);
  TestQueue().CopyDeviceToHost(h_bits.data(), h, 16);
  EXPECT_EQ(bf_bits,
            (std::vector<uint16_t>{0x3F80, 0xC000, 0x43E0, 0x447A, 0, 0x3F00, 0xBEC0, 0x4040}));
  // e4m3fn saturates at 448 (0x7E); e5m2 represents 448 and 1024 (1000 rounds up).
  EXPECT_EQ(e4_bits, (std::vector<uint8_t>{0x38, 0xC0, 0x7E, 0x7E, 0, 0x30, 0xAC, 0x44}));
  EXPECT_EQ(e5_bits, (std::vector<uint8_t>{0x3C, 0xC0, 0x5F, 0x64, 0, 0x38, 0xB6, 0x42}));
  for (size_t i = 0; i < 8; ++i) EXPECT_EQ(h_bits[i], FloatToHalf(input[i])) << i;
  const std::vector<float> sums = Download<float>(back, 8);
  const float expected[] = {4.0f, -8.0f, 1792.0f, 1000.0f + 448.0f + 1024.0f + 1000.0f,
                            0.0f, 2.0f,  -1.5f,   12.0f};
  for (size_t i = 0; i < 8; ++i) EXPECT_EQ(sums[i], expected[i]) << i;
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
