// Activation on the OpenCL device against a double-precision host reference.

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

#include "nerva/platform/cl/cl_test_util.h"
#include "nerva/platform/cl/kernel/elementwise/activation.h"
#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

double Reference(ActivationType op, double x, double alpha, double beta) {
  switch (op) {
    case kCelu:
      return std::max(0.0, x) + std::min(0.0, alpha * (std::exp(x / alpha) - 1));
    case kElu:
      return x > 0 ? x : alpha * (std::exp(x) - 1);
    case kRelu:
      return x > 0 ? x : 0;
    case kRelu6:
      return std::clamp(x, 0.0, 6.0);
    case kSigmoid:
      return 1 / (1 + std::exp(-x));
    case kHardSigmoid:
      return std::clamp(alpha * x + beta, 0.0, 1.0);
    case kHardSwish:
      return std::clamp(x + 3, 0.0, 6.0) * x / 6;
    case kMish:
      return x * std::tanh(std::log1p(std::exp(x)));
    case kHardTanh:
      return std::clamp(x, alpha, beta);
    case kLeakyRelu:
      return x >= 0 ? x : alpha * x;
    case kGelu:
      return 0.5 * x * (1 + std::erf(x / std::sqrt(2.0)));
    case kGeluApproximateTanh:
      return 0.5 * x * (1 + std::tanh(std::sqrt(2 / M_PI) * (x + 0.044715 * x * x * x)));
    case kSilu:
      return x / (1 + std::exp(-x));
    case kSelu:
      return 1.0507009873554805 * (x > 0 ? x : 1.6732632423543773 * (std::exp(x) - 1));
    case kSwish:
      return x / (1 + std::exp(-alpha * x));
    case kSRelu:
      return x >= 0 ? x * x : 0;
  }
  return NAN;
}

ActivationOption OptionFor(ActivationType op) {
  ActivationOption option;
  option.op_type = op;
  switch (op) {
    case kCelu:
      option.alpha = 0.8f;
      break;
    case kElu:
      option.alpha = 1.2f;
      break;
    case kHardSigmoid:
      option.alpha = 0.2f;
      option.beta = 0.5f;
      break;
    case kHardTanh:
      option.alpha = -1.0f;
      option.beta = 1.0f;
      break;
    case kLeakyRelu:
      option.alpha = 0.1f;
      break;
    case kSwish:
      option.alpha = 1.5f;
      break;
    default:
      break;
  }
  return option;
}

// Runs the activation through the tensor front-end on `input` (float values,
// stored as `dtype`: kFloat or kHalf) and returns the outputs as floats.
std::vector<float> RunFloatLike(ActivationType op, DataType dtype,
                                const std::vector<float>& input) {
  const long n = static_cast<long>(input.size());
  Tensor x, y = TestSession().MakeTensor({n}, dtype);
  if (dtype == kHalf) {
    std::vector<uint16_t> bits(input.size());
    std::transform(input.begin(), input.end(), bits.begin(), FloatToHalf);
    x = Upload(bits, {n}, kHalf);
  } else {
    x = Upload(input, {n}, kFloat);
  }
  Kernel kernel = Activation::Create(TestQueue(), OptionFor(op), x, y);
  TestQueue().Enqueue(kernel);
  if (dtype == kFloat) return Download<float>(y, input.size());
  std::vector<uint16_t> bits = Download<uint16_t>(y, input.size());
  std::vector<float> out(bits.size());
  std::transform(bits.begin(), bits.end(), out.begin(), HalfToFloat);
  return out;
}

void CheckFloatLike(ActivationType op, DataType dtype, size_t n, unsigned seed) {
  std::vector<float> input = RandomFloats(n, -6.0f, 6.0f, seed);
  if (dtype == kHalf) {  // the device sees the half-rounded input
    for (auto& v : input) v = HalfToFloat(FloatToHalf(v));
  }
  const std::vector<float> out = RunFloatLike(op, dtype, input);
  const ActivationOption option = OptionFor(op);
  const double tol = dtype == kHalf ? 2e-3 : 2e-5;
  for (size_t i = 0; i < n; ++i) {
    const double expected = Reference(op, input[i], option.alpha, option.beta);
    ASSERT_NEAR(out[i], expected, tol * (1 + std::fabs(expected)))
        << "op " << op << " " << dtype << " n " << n << " at " << i << " x " << input[i];
  }
}

struct OpCase {
  ActivationType op;
  const char* name;
};

class ActivationOpTest : public ::testing::TestWithParam<OpCase> {};

TEST_P(ActivationOpTest, FloatMatchesReference) {
  CheckFloatLike(GetParam().op, kFloat, 1000, 1);
}

TEST_P(ActivationOpTest, HalfMatchesReference) {
  CheckFloatLike(GetParam().op, kHalf, 1001, 2);
}

TEST_P(ActivationOpTest, OpCodeName) {
  EXPECT_EQ(GetOpCode(GetParam().op), GetParam().name);
}

INSTANTIATE_TEST_SUITE_P(
    AllCodes, ActivationOpTest,
    ::testing::Values(OpCase{kCelu, "CELU"}, OpCase{kElu, "ELU"}, OpCase{kRelu, "RELU"},
                      OpCase{kRelu6, "RELU6"}, OpCase{kSigmoid, "SIGMOID"},
                      OpCase{kHardSigmoid, "HARD_SIGMOID"}, OpCase{kHardSwish, "HARD_SWISH"},
                      OpCase{kMish, "MISH"}, OpCase{kHardTanh, "HARD_TANH"},
                      OpCase{kLeakyRelu, "LEAKY_RELU"}, OpCase{kGelu, "GELU"},
                      OpCase{kGeluApproximateTanh, "GELUAPPROXIMATETANH"}, OpCase{kSilu, "SILU"},
                      OpCase{kSelu, "SELU"}, OpCase{kSwish, "SWISH"}, OpCase{kSRelu, "SRELU"}),
    [](const ::testing::TestParamInfo<OpCase>& info) { return std::string(info.param.name); });

// Every vector width and leftover: 1, 2, 3 lanes, 4 lanes with leftovers 0, 1 and 3.
class ActivationLengthTest : public ::testing::TestWithParam<size_t> {};

TEST_P(ActivationLengthTest, ReluFloat) {
  CheckFloatLike(kRelu, kFloat, GetParam(), 3);
}
TEST_P(ActivationLengthTest, GeluHalf) {
  CheckFloatLike(kGelu, kHalf, GetParam(), 4);
}

INSTANTIATE_TEST_SUITE_P(Lengths, ActivationLengthTest,
                         ::testing::Values(1, 2, 3, 4, 5, 7, 8, 1000003));

TEST(ActivationTest, ReluOnIntStaysInt) {
  // 2147483001 is not representable in float: exact results prove int arithmetic.
  const std::vector<int32_t> input = {-7, 2147483001, 0, -2147483000, 5, 1, -1};
  const long n = static_cast<long>(input.size());
  Tensor x = Upload(input, {n}, kInt32), y = TestSession().MakeTensor({n}, kInt32);
  TestQueue().Enqueue(Activation::Create(TestQueue(), OptionFor(kRelu), x, y));
  EXPECT_EQ(Download<int32_t>(y, input.size()),
            (std::vector<int32_t>{0, 2147483001, 0, 0, 5, 1, 0}));
  EXPECT_EQ(GetConvType(kRelu, kInt32), kInt32);
  EXPECT_EQ(GetConvType(kRelu6, kUInt8), kUInt8);
  EXPECT_EQ(GetConvType(kRelu, kHalf), kFloat);
  EXPECT_EQ(GetConvType(kSigmoid, kInt32), kFloat);
}

// RELU in each integer type of its own (a scalar select() on an int
// condition is ambiguous for most of them): five elements give one four-wide
// vector and a shifted one on vector devices.
template <typename T>
void CheckReluInOwnType(DataType dtype) {
  const std::vector<T> input = {static_cast<T>(-3), 0, 9, 1, static_cast<T>(-1)};
  Tensor x = Upload(input, {5}, dtype), y = TestSession().MakeTensor({5}, dtype);
  TestQueue().Enqueue(Activation::Create(TestQueue(), OptionFor(kRelu), x, y));
  std::vector<T> expected(5);
  for (size_t i = 0; i < 5; ++i) expected[i] = input[i] > 0 ? input[i] : 0;
  EXPECT_EQ(Download<T>(y, 5), expected) << dtype;
}

TEST(ActivationTest, ReluInEveryIntegerType) {
  CheckReluInOwnType<int8_t>(kInt8);
  CheckReluInOwnType<int16_t>(kInt16);
  CheckReluInOwnType<int64_t>(kInt64);
  CheckReluInOwnType<uint8_t>(kUInt8);
  CheckReluInOwnType<uint16_t>(kUInt16);
  CheckReluInOwnType<uint32_t>(kUInt32);
  CheckReluInOwnType<uint64_t>(kUInt64);
}

TEST(ActivationTest, Relu6OnUInt8ClampsInItsOwnType) {
  const std::vector<uint8_t> input = {0, 3, 6, 7, 200, 255, 1, 5, 9};
  const long n = static_cast<long>(input.size());
  Tensor x = Upload(input, {n}, kUInt8), y = TestSession().MakeTensor({n}, kUInt8);
  TestQueue().Enqueue(Activation::Create(TestQueue(), OptionFor(kRelu6), x, y));
  EXPECT_EQ(Download<uint8_t>(y, input.size()), (std::vector<uint8_t>{0, 3, 6, 6, 6, 6, 1, 5, 6}));
}

TEST(ActivationTest, SigmoidOnIntComputesInFloat) {
  const std::vector<int32_t> input = {-3, 0, 2, 40, -40, 1};
  const long n = static_cast<long>(input.size());
  Tensor x = Upload(input, {n}, kInt32), y = TestSession().MakeTensor({n}, kFloat);
  Tensor yi = TestSession().MakeTensor({n}, kInt32);
  TestQueue().Enqueue(Activation::Create(TestQueue(), OptionFor(kSigmoid), x, y));
  TestQueue().Enqueue(Activation::Create(TestQueue(), OptionFor(kSigmoid), x, yi));
  const std::vector<float> out = Download<float>(y, input.size());
  for (size_t i = 0; i < input.size(); ++i) {
    EXPECT_NEAR(out[i], 1 / (1 + std::exp(-double(input[i]))), 1e-6) << input[i];
  }
  // Converted back to int: rounds toward zero.
  EXPECT_EQ(Download<int32_t>(yi, input.size()), (std::vector<int32_t>{0, 0, 0, 1, 0, 0}));
}

TEST(ActivationTest, DescriptorAndBufferForm) {
  const std::vector<float> input = {-1.5f, 2.5f, -0.25f, 4.0f, 0.5f};
  TensorOption opt{Shape({5}), kFloat};
  Tensor x = Upload(input, {5}, kFloat);
  Buffer out = TestSession().MakeBuffer(kMemReadWrite, opt.bytes());
  TestQueue().Enqueue(
      Activation::Create(TestQueue(), OptionFor(kRelu), opt, x.storage(), opt, out));
  std::vector<float> result(5);
  TestQueue().CopyDeviceToHost(result.data(), out, 5 * sizeof(float));
  EXPECT_EQ(result, (std::vector<float>{0.0f, 2.5f, 0.0f, 4.0f, 0.5f}));
}

TEST(ActivationTest, VerifyMessages) {
  Tensor x = TestSession().MakeTensor({2, 3}, kFloat), y = TestSession().MakeTensor({2, 3}, kFloat);
  const ActivationOption option = OptionFor(kRelu);
  struct Case {
    Tensor x, y;
    const char* message;
  } cases[] = {
      {Tensor(), y, "Activation x is empty!"},
      {x, Tensor(), "Activation y is empty!"},
      {x.Transpose({1, 0}), y, "Activation x must be contiguous!"},
      {x, y.Transpose({1, 0}), "Activation y must be contiguous!"},
  };
  for (const Case& c : cases) {
    try {
      Activation::Create(TestQueue(), option, c.x, c.y);
      ADD_FAILURE() << "no exception for " << c.message;
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), c.message);
    }
  }
}

// The exponential-based functions at the ends of the float range, at the
// infinities and on NaN, where a hand-written exp2 is most likely to slip.
TEST(ActivationTest, ExponentialFunctionsAtExtremes) {
  const float inf = std::numeric_limits<float>::infinity();
  const std::vector<float> input = {-inf,    -1000.0f, -100.0f, -88.5f, -30.0f,
                                    -1e-30f, 0.0f,     1e-30f,  15.0f,  30.0f,
                                    88.5f,   100.0f,   1000.0f, inf,    NAN};
  const ActivationType ops[] = {kCelu, kElu, kSigmoid, kMish, kSilu, kSelu, kSwish};
  for (ActivationType op : ops) {
    const std::vector<float> out = RunFloatLike(op, kFloat, input);
    const ActivationOption option = OptionFor(op);
    for (size_t i = 0; i < input.size(); ++i) {
      const double expected = Reference(op, input[i], option.alpha, option.beta);
      if (std::isnan(expected)) {
        EXPECT_TRUE(std::isnan(out[i])) << op << " x " << input[i] << " gave " << out[i];
      } else if (std::isinf(expected)) {
        EXPECT_EQ(out[i], expected) << op << " x " << input[i];
      } else {
        EXPECT_NEAR(out[i], expected, 1e-6 + 2e-5 * std::fabs(expected)) << op << " x " << input[i];
      }
    }
  }
}

// In place (y is x) every length must come out right: an overlapping
// leftover vector would read elements its neighbour had already written.
TEST(ActivationTest, InPlaceEveryLength) {
  for (long n : {5L, 6L, 7L, 8L, 1001L}) {
    const std::vector<float> input = RandomFloats(static_cast<size_t>(n), -6.0f, 6.0f, 11);
    Tensor x = Upload(input, {n}, kFloat);
    TestQueue().Enqueue(Activation::Create(TestQueue(), OptionFor(kSigmoid), x, x));
    const std::vector<float> out = Download<float>(x, input.size());
    for (size_t i = 0; i < input.size(); ++i) {
      ASSERT_NEAR(out[i], 1 / (1 + std::exp(-double(input[i]))), 2e-6) << "n " << n << " at " << i;
    }
  }
}

// The same through two views of one buffer (sub-buffers over the same bytes).
TEST(ActivationTest, InPlaceThroughBufferViews) {
  const std::vector<float> input = RandomFloats(5, -6.0f, 6.0f, 12);
  Tensor base = Upload(input, {5}, kFloat);
  const TensorOption opt{Shape({5}), kFloat};
  Buffer in_view = base.storage().View(0, opt.bytes(), kMemReadWrite);
  Buffer out_view = base.storage().View(0, opt.bytes(), kMemReadWrite);
  TestQueue().Enqueue(
      Activation::Create(TestQueue(), OptionFor(kRelu), opt, in_view, opt, out_view));
  const std::vector<float> out = Download<float>(base, 5);
  for (size_t i = 0; i < 5; ++i) EXPECT_EQ(out[i], std::max(input[i], 0.0f)) << i;
}

TEST(ElementwiseFrameTest, VectorWidthWhenAliased) {
  EXPECT_EQ(ElementwiseVecSize(4, 5, false), 4);
  EXPECT_EQ(ElementwiseVecSize(4, 3, false), 3);
  EXPECT_EQ(ElementwiseVecSize(4, 5, true), 1);
  EXPECT_EQ(ElementwiseVecSize(4, 6, true), 2);
  EXPECT_EQ(ElementwiseVecSize(4, 12, true), 4);
  EXPECT_EQ(ElementwiseVecSize(4, 3, true), 1);
}

TEST(ElementwiseFrameTest, SharesMemory) {
  Tensor a = TestSession().MakeTensor({64, 64}, kFloat);
  Tensor b = TestSession().MakeTensor({64, 64}, kFloat);
  EXPECT_TRUE(SharesMemory(a, a));
  EXPECT_FALSE(SharesMemory(a, b));
  // Disjoint rows of one buffer, and overlapping rows.
  Tensor top = a.Slice({0, 0}, {32, 64}), bottom = a.Slice({32, 0}, {64, 64});
  EXPECT_FALSE(SharesMemory(top, bottom));
  EXPECT_TRUE(SharesMemory(top, a.Slice({31, 0}, {33, 64})));
  // Sub-buffers (aligned origins): bytes [0, 4096) and [8192, 12288).
  const TensorOption quarter{Shape({1024}), kFloat};
  Tensor first(quarter, a.storage().View(0, 4096, kMemReadWrite), 0);
  Tensor third(quarter, a.storage().View(8192, 4096, kMemReadWrite), 0);
  EXPECT_FALSE(SharesMemory(first, third));
  EXPECT_TRUE(SharesMemory(first, top));
  EXPECT_TRUE(SharesMemory(third, bottom));
  EXPECT_FALSE(SharesMemory(first, bottom));
}

TEST(ActivationTest, EmptyTensorIsRejected) {
  Buffer storage = TestSession().MakeBuffer(kMemReadWrite, 16);
  Tensor empty(TensorOption{Shape({0}), kFloat}, storage, 0);
  EXPECT_THROW(Activation::Create(TestQueue(), OptionFor(kRelu), empty, empty), std::runtime_error);
}

TEST(ActivationTest, UnknownOperatorCode) {
  for (int code : {-1, 16}) {
    try {
      GetOpCode(code);
      ADD_FAILURE();
    } catch (const std::invalid_argument& e) {
      EXPECT_EQ(std::string(e.what()),
                "Unsupport activation operator type: " + std::to_string(code));
    }
    EXPECT_THROW(GetConvType(code, kFloat), std::invalid_argument);
  }
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
