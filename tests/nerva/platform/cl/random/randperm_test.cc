// RandPerm and Shuffle on the OpenCL device.

#include <algorithm>
#include <numeric>
#include <stdexcept>
#include <vector>

#include "nerva/platform/cl/cl_test_util.h"
#include "nerva/platform/cl/kernel/sort/bitonicsort.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

struct PermScratch {
  Tensor keys, temp, temp_indices;
  explicit PermScratch(long n)
      : keys(TestSession().MakeTensor({n}, kFloat)),
        temp(TestSession().MakeTensor({BitonicExtendedLength(n)}, kFloat)),
        temp_indices(TestSession().MakeTensor({BitonicExtendedLength(n)}, kInt32)) {}
};

std::vector<int64_t> RunRandPerm(long n) {
  Tensor out = TestSession().MakeTensor({n}, kInt64);
  PermScratch s(n);
  TestQueue().Enqueue(RandPerm::Create(TestQueue(), out.option(), out.storage(), s.keys.option(),
                                       s.keys.storage(), s.temp.option(), s.temp.storage(),
                                       s.temp_indices.option(), s.temp_indices.storage()));
  return Download<int64_t>(out, static_cast<size_t>(n));
}

bool IsPermutation(std::vector<int64_t> p) {
  std::sort(p.begin(), p.end());
  for (size_t i = 0; i < p.size(); ++i) {
    if (p[i] != static_cast<int64_t>(i)) return false;
  }
  return true;
}

TEST(RandPermTest, IsAPermutationForShortAndLongRuns) {
  TestSession().SetRandomSeed(3, 0);
  for (long n : {1L, 3L, 1000L, 5000L}) {
    const std::vector<int64_t> p = RunRandPerm(n);
    EXPECT_TRUE(IsPermutation(p)) << n;
    if (n >= 1000) {
      std::vector<int64_t> identity(n);
      std::iota(identity.begin(), identity.end(), 0);
      EXPECT_NE(p, identity) << n;
    }
  }
}

TEST(RandPermTest, FollowsTheSessionGenerator) {
  TestSession().SetRandomSeed(21, 100);
  const std::vector<int64_t> a = RunRandPerm(500);
  EXPECT_EQ(TestSessionImpl()->random_offset(), 104u);
  const std::vector<int64_t> b = RunRandPerm(500);
  TestSession().SetRandomSeed(21, 100);
  EXPECT_NE(a, b);
  EXPECT_EQ(RunRandPerm(500), a);
}

TEST(ShuffleTest, PermutesRows) {
  const long rows = 7, cols = 3;
  const std::vector<float> x = RandomFloats(rows * cols, -1.0f, 1.0f, 4);
  Tensor in = Upload(x, {rows, cols}, kFloat), out = TestSession().MakeTensor({rows, cols}, kFloat);
  Tensor indices = TestSession().MakeTensor({rows}, kInt64);
  PermScratch s(rows);
  TestSession().SetRandomSeed(8, 0);
  TestQueue().Enqueue(Shuffle::Create(
      TestQueue(), in.option(), in.storage(), out.option(), out.storage(), indices.option(),
      indices.storage(), s.keys.option(), s.keys.storage(), s.temp.option(), s.temp.storage(),
      s.temp_indices.option(), s.temp_indices.storage()));
  const std::vector<int64_t> p = Download<int64_t>(indices, rows);
  ASSERT_TRUE(IsPermutation(p));
  const std::vector<float> y = Download<float>(out, rows * cols);
  for (long r = 0; r < rows; ++r) {
    for (long c = 0; c < cols; ++c) EXPECT_EQ(y[r * cols + c], x[p[r] * cols + c]) << r;
  }
  Tensor bad = TestSession().MakeTensor({rows + 1}, kInt64);
  EXPECT_THROW(Shuffle::Create(TestQueue(), in.option(), in.storage(), out.option(), out.storage(),
                               bad.option(), bad.storage(), s.keys.option(), s.keys.storage(),
                               s.temp.option(), s.temp.storage(), s.temp_indices.option(),
                               s.temp_indices.storage()),
               std::runtime_error);
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
