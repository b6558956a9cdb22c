// Random-number kernels on the OpenCL device against a host model of the
// Philox generator (bit-exact uniform floats) and statistical bounds.

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

#include "nerva/platform/cl/cl_test_util.h"
#include "nerva/platform/cl/kernel/random/philox.h"
#include "nerva/platform/cl/random/philox_model.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

constexpr uint64_t kSeed = 0x0123456789ABCDEFull;

struct Output {
  TensorOption opt;
  Buffer buffer;
};

Output MakeOutput(long n, DataType dtype) {
  TensorOption opt{Shape({n}), dtype};
  return {opt, TestSession().MakeBuffer(kMemReadWrite, opt.bytes())};
}

template <typename T>
std::vector<T> Read(const Output& out) {
  std::vector<T> host(static_cast<size_t>(out.opt.shape.size()));
  TestQueue().CopyDeviceToHost(host.data(), out.buffer, out.opt.bytes());
  return host;
}

std::vector<float> ReadHalf(const Output& out) {
  std::vector<uint16_t> bits = Read<uint16_t>(out);
  std::vector<float> values(bits.size());
  std::transform(bits.begin(), bits.end(), values.begin(), HalfToFloat);
  return values;
}

// The 4-wide draw of work item g, and the element it starts at.
HostPhilox::Block Words(uint64_t seed, uint64_t offset, size_t g) {
  return HostPhilox(seed, g, offset).Next4();
}
size_t Start(size_t g, size_t n, size_t vec) {
  const long shift = static_cast<long>((vec - n % vec) % vec);
  return static_cast<size_t>(std::max(static_cast<long>(g * vec) - shift, 0L));
}

// Calls `check(element, lane value index)` for every element that exactly one
// work item writes (the overlap of the first two vectors is skipped).
template <typename Fn>
void ForEachOwned(size_t n, size_t vec, Fn check) {
  const size_t items = (n + vec - 1) / vec;
  for (size_t g = 0; g < items; ++g) {
    for (size_t lane = 0; lane < vec; ++lane) {
      const size_t i = Start(g, n, vec) + lane;
      const bool overlap = n % vec && items > 1 && i >= Start(1, n, vec) && i < vec;
      if (!overlap) check(i, g, lane);
    }
  }
}

double Mean(const std::vector<float>& v) {
  double s = 0;
  for (float x : v) s += x;
  return s / v.size();
}
double Variance(const std::vector<float>& v) {
  const double m = Mean(v);
  double s = 0;
  for (float x : v) s += (x - m) * (x - m);
  return s / v.size();
}

RandOption Uniform(float low, float high) {
  RandOption option;
  option.low = low;
  option.high = high;
  return option;
}

TEST(RandomTest, UniformFloatsMatchHostPhiloxBitForBit) {
  for (size_t n : {size_t{4}, size_t{4096}, size_t{4099}, size_t{5}}) {
    TestSession().SetRandomSeed(kSeed, 40);
    Output out = MakeOutput(static_cast<long>(n), kFloat);
    TestQueue().Enqueue(Rand::Create(TestQueue(), Uniform(0.0f, 1.0f), out.opt, out.buffer));
    const std::vector<float> got = Read<float>(out);
    ForEachOwned(n, 4, [&](size_t i, size_t g, size_t lane) {
      const float expected = HostPhilox::Uniform(Words(kSeed, 40, g)[lane]);
      ASSERT_EQ(got[i], expected) << "n " << n << " at " << i;
      ASSERT_TRUE(got[i] > 0.0f && got[i] <= 1.0f);
    });
  }
}

TEST(RandomTest, HostModelStepsThroughBlocksAsDescribed) {
  // rand4 after one rand takes three words of this block and one of the next;
  // rand then continues in the next block from its second word.
  HostPhilox a(7, 3, 11), b(7, 3, 11);
  const uint32_t w0 = a.Next();
  const HostPhilox::Block four = a.Next4();
  const uint32_t after = a.Next();
  uint32_t words[9];
  for (auto& w : words) w = b.Next();
  EXPECT_EQ(w0, words[0]);
  EXPECT_EQ(four, (HostPhilox::Block{words[1], words[2], words[3], words[4]}));
  EXPECT_EQ(after, words[5]);
}

TEST(RandomTest, PerOptionSeedDrawsFromOffsetZeroAndLeavesSessionAlone) {
  TestSession().SetRandomSeed(99, 8);
  RandOption option = Uniform(0.0f, 1.0f);
  option.use_seed = true;
  option.seed = 12345.75f;  // truncated to 12345
  Output out = MakeOutput(8, kFloat);
  TestQueue().Enqueue(Rand::Create(TestQueue(), option, out.opt, out.buffer));
  EXPECT_EQ(TestSessionImpl()->random_offset(), 8u);
  const std::vector<float> got = Read<float>(out);
  for (size_t i = 0; i < 8; ++i) {
    EXPECT_EQ(got[i], HostPhilox::Uniform(Words(12345, 0, i / 4)[i % 4])) << i;
  }
  option.seed = -1.0f;
  EXPECT_THROW(Rand::Create(TestQueue(), option, out.opt, out.buffer), std::invalid_argument);
}

TEST(RandomTest, SessionOffsetAdvancesAtCompileAndResetReproduces) {
  TestSession().SetRandomSeed(kSeed, 0);
  Output a = MakeOutput(64, kFloat), b = MakeOutput(64, kFloat), c = MakeOutput(64, kFloat);
  Kernel ka = Rand::Create(TestQueue(), Uniform(0.0f, 1.0f), a.opt, a.buffer);
  EXPECT_EQ(TestSessionImpl()->random_offset(), 4u);
  Kernel kb = Rand::Create(TestQueue(), Uniform(0.0f, 1.0f), b.opt, b.buffer);
  EXPECT_EQ(TestSessionImpl()->random_offset(), 8u);
  TestQueue().Enqueue(kb);  // enqueued in the other order: still distinct draws
  TestQueue().Enqueue(ka);
  TestSession().SetRandomSeed(kSeed, 0);
  TestQueue().Enqueue(Rand::Create(TestQueue(), Uniform(0.0f, 1.0f), c.opt, c.buffer));
  EXPECT_NE(Read<float>(a), Read<float>(b));
  EXPECT_EQ(Read<float>(a), Read<float>(c));
  // Normal draws advance by the vector width.
  RandNOption normal;
  TestQueue().Enqueue(RandN::Create(TestQueue(), normal, c.opt, c.buffer));
  EXPECT_EQ(TestSessionImpl()->random_offset(), 8u);
}

TEST(RandomTest, OffsetAdvanceRules) {
  for (int vec = 1; vec <= 4; ++vec) {
    EXPECT_EQ(UniformOffsetAdvance(vec), 4u) << vec;
    EXPECT_EQ(NormalOffsetAdvance(vec), static_cast<uint64_t>(vec)) << vec;
  }
  EXPECT_EQ(UniformOffsetAdvance(8), 8u);
}

TEST(RandomTest, UniformRangeMomentsFloatAndHalf) {
  const long n = 1 << 20;
  TestSession().SetRandomSeed(5, 0);
  Output f = MakeOutput(n, kFloat), h = MakeOutput(n + 3, kHalf);
  TestQueue().Enqueue(Rand::Create(TestQueue(), Uniform(-2.0f, 3.0f), f.opt, f.buffer));
  TestQueue().Enqueue(Rand::Create(TestQueue(), Uniform(-2.0f, 3.0f), h.opt, h.buffer));
  for (const std::vector<float>& v : {Read<float>(f), ReadHalf(h)}) {
    EXPECT_NEAR(Mean(v), 0.5, 0.01);
    EXPECT_NEAR(Variance(v), 25.0 / 12, 0.02);
    EXPECT_GE(*std::min_element(v.begin(), v.end()), -2.0f);
    EXPECT_LE(*std::max_element(v.begin(), v.end()), 3.0f);
  }
  // The float values are u * 5 - 2 of the host model's u.
  const std::vector<float> got = Read<float>(f);
  for (size_t g = 0; g < 16; ++g) {
    const HostPhilox::Block w = Words(5, 0, g);
    for (size_t lane = 0; lane < 4; ++lane) {
      EXPECT_NEAR(got[g * 4 + lane], HostPhilox::Uniform(w[lane]) * 5.0 - 2.0, 1e-6);
    }
  }
}

TEST(RandomTest, NormalMatchesBoxMullerAndMoments) {
  const long n = 1 << 20;
  TestSession().SetRandomSeed(kSeed, 12);
  Output plain = MakeOutput(n, kFloat), scaled = MakeOutput(4099, kFloat);
  TestQueue().Enqueue(RandN::Create(TestQueue(), RandNOption(), plain.opt, plain.buffer));
  RandNOption option;
  option.mean = 3.0f;
  option.std = 0.5f;
  TestQueue().Enqueue(RandN::Create(TestQueue(), option, scaled.opt, scaled.buffer));
  const std::vector<float> v = Read<float>(plain);
  EXPECT_NEAR(Mean(v), 0.0, 0.006);
  EXPECT_NEAR(Variance(v), 1.0, 0.008);
  for (size_t g = 0; g < 1000; ++g) {
    const HostPhilox::Block w = Words(kSeed, 12, g);
    const auto p = HostPhilox::Normal(w[0], w[1]), q = HostPhilox::Normal(w[2], w[3]);
    const double expected[] = {p[0], p[1], q[0], q[1]};
    for (size_t lane = 0; lane < 4; ++lane) {
      ASSERT_NEAR(v[g * 4 + lane], expected[lane], 2e-4 * (1 + std::fabs(expected[lane]))) << g;
    }
  }
  const std::vector<float> s = Read<float>(scaled);
  ForEachOwned(4099, 4, [&](size_t i, size_t g, size_t lane) {
    const HostPhilox::Block w = Words(kSeed, 16, g);
    const auto p = HostPhilox::Normal(w[lane < 2 ? 0 : 2], w[lane < 2 ? 1 : 3]);
    ASSERT_NEAR(s[i], 3.0 + 0.5 * p[lane % 2], 2e-4) << i;
  });
}

TEST(RandomTest, LogNormalAndExponentialMatchTheirTransforms) {
  TestSession().SetRandomSeed(kSeed, 0);
  Output ln = MakeOutput(4097, kFloat), ex = MakeOutput(4097, kFloat), ex3 = MakeOutput(3, kFloat);
  LogNormalOption lo;
  lo.mean = 0.5f;
  lo.std = 0.75f;
  ExponentialOption eo;
  eo.lambd = 2.0f;
  TestQueue().Enqueue(LogNormal::Create(TestQueue(), lo, ln.opt, ln.buffer));
  TestQueue().Enqueue(Exponential::Create(TestQueue(), eo, ex.opt, ex.buffer));
  TestQueue().Enqueue(Exponential::Create(TestQueue(), eo, ex3.opt, ex3.buffer));
  const std::vector<float> l = Read<float>(ln), e = Read<float>(ex), e3 = Read<float>(ex3);
  const auto exponential = [](float u) {
    const double eps = 1.1920928955078125e-07;
    const double t = (1.0 - u) / (u + eps) + eps;
    return 2.0 * std::exp(-2.0 * t);
  };
  ForEachOwned(4097, 4, [&](size_t i, size_t g, size_t lane) {
    const HostPhilox::Block w = Words(kSeed, 0, g);
    const auto p = HostPhilox::Normal(w[lane < 2 ? 0 : 2], w[lane < 2 ? 1 : 3]);
    const double expected = std::exp(0.5 + 0.75 * p[lane % 2]);
    ASSERT_NEAR(l[i], expected, 3e-4 * expected) << i;
    const double ee = exponential(HostPhilox::Uniform(Words(kSeed, 4, g)[lane]));
    ASSERT_NEAR(e[i], ee, 1e-4 * (1 + ee)) << i;
  });
  for (size_t i = 0; i < 3; ++i) {  // three lanes of one draw
    const double ee = exponential(HostPhilox::Uniform(Words(kSeed, 8, 0)[i]));
    EXPECT_NEAR(e3[i], ee, 1e-4 * (1 + ee)) << i;
  }
  EXPECT_EQ(TestSessionImpl()->random_offset(), 12u);
}

// Integer draws: word % (high - low) + low, every width of the program.
template <typename T>
void CheckRandInt(long n, DataType dtype, long low, long high) {
  TestSession().SetRandomSeed(kSeed, 20);
  Output out = MakeOutput(n, dtype);
  RandIntOption option;
  option.low = low;
  option.high = high;
  TestQueue().Enqueue(RandInt::Create(TestQueue(), option, out.opt, out.buffer));
  const std::vector<T> got = Read<T>(out);
  const size_t vec = n == 3 ? 3 : (n >= 4 ? 4 : static_cast<size_t>(n));
  ForEachOwned(static_cast<size_t>(n), vec, [&](size_t i, size_t g, size_t lane) {
    HostPhilox gen(kSeed, g, 20);
    uint32_t word = 0;
    if (vec == 4) {
      word = gen.Next4()[lane];
    } else {
      for (size_t k = 0; k <= lane; ++k) word = gen.Next();
    }
    ASSERT_EQ(static_cast<long>(got[i]), static_cast<long>(word % (high - low)) + low)
        << dtype << " n " << n << " at " << i;
  });
}

TEST(RandomTest, RandIntEveryWidthAndType) {
  CheckRandInt<int64_t>(1001, kInt64, -1000000007L, 3000000000L);
  CheckRandInt<int32_t>(3, kInt32, -5, 17);
  CheckRandInt<int32_t>(2, kInt32, 0, 100);
  CheckRandInt<int32_t>(1, kInt32, 7, 9);
  CheckRandInt<uint8_t>(4097, kUInt8, 0, 256);
}

TEST(RandomTest, BernoulliRateAndDraws) {
  const long n = 1 << 20;
  std::vector<float> p(n);
  for (long i = 0; i < n; ++i) p[i] = i % 2 ? 0.3f : 0.8f;
  Tensor in = Upload(p, {n}, kFloat);
  Output out = MakeOutput(n, kFloat);
  TestSession().SetRandomSeed(kSeed, 0);
  BernoulliOption option;
  TestQueue().Enqueue(
      Bernoulli::Create(TestQueue(), option, in.option(), in.storage(), out.opt, out.buffer));
  const std::vector<float> got = Read<float>(out);
  double odd = 0, even = 0;
  for (long i = 0; i < n; ++i) (i % 2 ? odd : even) += got[i];
  EXPECT_NEAR(odd / (n / 2), 0.3, 0.004);
  EXPECT_NEAR(even / (n / 2), 0.8, 0.004);
  for (size_t g = 0; g < 1000; ++g) {
    const HostPhilox::Block w = Words(kSeed, 0, g);
    for (size_t lane = 0; lane < 4; ++lane) {
      const size_t i = g * 4 + lane;
      ASSERT_EQ(got[i], HostPhilox::Uniform(w[lane]) <= p[i] ? 1.0f : 0.0f) << i;
    }
  }
  // Two elements: a 2-wide draw into a bool output.
  Tensor in2 = Upload(std::vector<float>{1.0f, 0.0f}, {2}, kFloat);
  Output out2 = MakeOutput(2, kBool);
  TestQueue().Enqueue(
      Bernoulli::Create(TestQueue(), option, in2.option(), in2.storage(), out2.opt, out2.buffer));
  EXPECT_EQ(Read<uint8_t>(out2), (std::vector<uint8_t>{1, 0}));
}

TEST(RandomTest, DropoutScalesKeptElements) {
  const long n = (1 << 20) + 3;
  const std::vector<float> x = RandomFloats(n, -4.0f, 4.0f, 9);
  Tensor in = Upload(x, {n}, kFloat);
  Output out = MakeOutput(n, kFloat), mask = MakeOutput(n, kBool);
  DropoutTrainOption option;
  option.p = 0.5f;
  TestSession().SetRandomSeed(kSeed, 0);
  TestQueue().Enqueue(DropoutTrain::Create(TestQueue(), option, in.option(), in.storage(), out.opt,
                                           out.buffer, mask.opt, mask.buffer));
  const std::vector<float> y = Read<float>(out);
  const std::vector<uint8_t> m = Read<uint8_t>(mask);
  double kept = 0;
  for (long i = 0; i < n; ++i) {
    ASSERT_TRUE(m[i] == 0 || m[i] == 1) << i;
    ASSERT_EQ(y[i], m[i] ? 2.0f * x[i] : 0.0f) << i;
    kept += m[i];
  }
  EXPECT_NEAR(kept / n, 0.5, 0.004);
  ForEachOwned(static_cast<size_t>(n), 4, [&](size_t i, size_t g, size_t lane) {
    ASSERT_EQ(m[i], HostPhilox::Uniform(Words(kSeed, 0, g)[lane]) > 0.5f ? 1 : 0) << i;
  });
}

TEST(RandomTest, ShortFloatOutputsFailInTheDeviceBuild) {
  for (long n : {1L, 2L, 3L}) {
    Output out = MakeOutput(n, kFloat);
    try {
      Rand::Create(TestQueue(), Uniform(0.0f, 1.0f), out.opt, out.buffer);
      FAIL() << "no build error for " << n;
    } catch (const std::runtime_error& e) {
      EXPECT_NE(std::string(e.what()).find("Only Support VEC_SIZE == 4"), std::string::npos)
          << e.what();
    }
  }
}

TEST(RandomTest, TypeAndArgumentErrors) {
  const char* mismatch =
      "Rand uniform data type mismatch: Rand dtype must be float point type and RandInt must be "
      "the integer type.";
  Output ints = MakeOutput(8, kInt32), floats = MakeOutput(8, kFloat);
  try {
    Rand::Create(TestQueue(), Uniform(0.0f, 1.0f), ints.opt, ints.buffer);
    FAIL();
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), mismatch);
  }
  try {
    RandInt::Create(TestQueue(), RandIntOption(), floats.opt, floats.buffer);
    FAIL();
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), mismatch);
  }
  RandIntOption empty;
  empty.low = empty.high = 3;
  EXPECT_THROW(RandInt::Create(TestQueue(), empty, ints.opt, ints.buffer), std::invalid_argument);
  RandNOption negative;
  negative.std = -1.0f;
  EXPECT_THROW(RandN::Create(TestQueue(), negative, floats.opt, floats.buffer),
               std::invalid_argument);
  DropoutTrainOption bad;
  bad.p = 1.5f;
  Output mask = MakeOutput(8, kBool);
  EXPECT_THROW(DropoutTrain::Create(TestQueue(), bad, floats.opt, floats.buffer, floats.opt,
                                    floats.buffer, mask.opt, mask.buffer),
               std::invalid_argument);
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
