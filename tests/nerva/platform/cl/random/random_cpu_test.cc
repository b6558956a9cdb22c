// RandUniform and RandNormal on CPU devices (whole runs of streams per work
// item, eight streams per vector) against the one-stream-per-item programs:
// the same numbers, bit for bit, for every length, range and output type.

#include <cstdint>
#include <cstring>
#include <vector>

#include "nerva/platform/cl/cl_test_util.h"
#include "nerva/platform/cl/random/philox_model.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

// The 32-bit patterns of the n values a kernel wrote (halves widened).
std::vector<uint32_t> Bits(const Buffer& buffer, long n, DataType dtype) {
  std::vector<uint32_t> bits(static_cast<size_t>(n));
  if (dtype == kHalf) {
    std::vector<uint16_t> half(bits.size());
    TestQueue().CopyDeviceToHost(half.data(), buffer, n * 2);
    for (size_t i = 0; i < half.size(); ++i) bits[i] = half[i];
  } else {
    TestQueue().CopyDeviceToHost(bits.data(), buffer, n * 4);
  }
  return bits;
}

// Fills n values of `dtype` with `make(option, buffer)` on the CPU path or the
// other one.
template <typename Make>
std::vector<uint32_t> Fill(long n, DataType dtype, bool gpu, Make make) {
  GpuPathsForTesting paths(gpu);
  const TensorOption opt{Shape({n}), dtype};
  Buffer buffer = TestSession().MakeBuffer(kMemReadWrite, opt.bytes());
  TestQueue().Enqueue(make(opt, buffer));
  return Bits(buffer, n, dtype);
}

// Compares both paths on every element one stream owns: when n is not a
// multiple of 4 the second stream overlaps the first one's elements
// (n % 4 .. 3) and either may write them.
// Lengths: one stream, part blocks, whole blocks, several work items, each
// with a leftover of 0 or 3 (each leftover is its own program build).
template <typename Make>
void ExpectSamePaths(const char* what, DataType dtype, Make make) {
  for (long n : {4L, 7L, 35L, 64L, 2051L, 40000L, 40003L}) {
    {
      const std::vector<uint32_t> cpu = Fill(n, dtype, false, make);
      const std::vector<uint32_t> gpu = Fill(n, dtype, true, make);
      const long shared_end = n % 4 ? 4 : 0;
      for (long i = 0; i < n; ++i) {
        if (i >= n % 4 && i < shared_end && n > 4) continue;
        ASSERT_EQ(cpu[i], gpu[i]) << what << " n " << n << " " << dtype << " at " << i;
      }
    }
  }
}

TEST(RandomCpuTest, UniformMatchesTheOneStreamPrograms) {
  for (float low : {0.0f, -2.5f}) {
    RandOption option;
    option.low = low;
    option.high = low == 0.0f ? 1.0f : 1.5f;
    option.use_seed = true;
    option.seed = 777.0f;
    ExpectSamePaths("RandUniform", low == 0.0f ? kFloat : kHalf,
                    [&](const TensorOption& opt, Buffer& buffer) {
                      return Rand::Create(TestQueue(), option, opt, buffer);
                    });
  }
}

TEST(RandomCpuTest, NormalMatchesTheOneStreamPrograms) {
  for (float mean : {0.0f, 3.0f}) {
    RandNOption option;
    option.mean = mean;
    option.std = mean == 0.0f ? 1.0f : 0.25f;
    option.use_seed = true;
    option.seed = 4242.0f;
    ExpectSamePaths("RandNormal", mean == 0.0f ? kFloat : kHalf,
                    [&](const TensorOption& opt, Buffer& buffer) {
                      return RandN::Create(TestQueue(), option, opt, buffer);
                    });
  }
}

// The session's generator: the CPU path reads the same offset and advances it
// the same way.
TEST(RandomCpuTest, SessionOffsetAndHostModel) {
  TestSession().SetRandomSeed(31, 1000);
  const long n = 4099;
  const TensorOption opt{Shape({n}), kFloat};
  Buffer buffer = TestSession().MakeBuffer(kMemReadWrite, opt.bytes());
  TestQueue().Enqueue(Rand::Create(TestQueue(), RandOption(), opt, buffer));
  EXPECT_EQ(TestSessionImpl()->random_offset(), 1004u);
  std::vector<float> got(n);
  TestQueue().CopyDeviceToHost(got.data(), buffer, n * 4);
  // Stream g >= 1 ends its four values at element 4 g + 3 - 1 (n % 4 == 3).
  for (size_t g = 1; g < static_cast<size_t>((n + 3) / 4); ++g) {
    const HostPhilox::Block w = HostPhilox(31, g, 1000).Next4();
    for (size_t lane = 0; lane < 4; ++lane) {
      ASSERT_EQ(got[4 * g + lane - 1], HostPhilox::Uniform(w[lane])) << g;
    }
  }
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
