// Nonzero on the OpenCL device against a host scan.

#include <cmath>
#include <stdexcept>
#include <vector>

#include "nerva/platform/cl/cl_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

// Runs Nonzero on `values` (as `dtype`: kFloat or kInt32) with `rows` output
// rows; returns (count, first min(count, rows) rows).
std::pair<int64_t, std::vector<int64_t>> RunNonzero(const std::vector<float>& values,
                                                    std::vector<long> sizes, DataType dtype,
                                                    long rows) {
  const long n = static_cast<long>(values.size()), rank = static_cast<long>(sizes.size());
  Tensor in = dtype == kInt32
                  ? Upload(std::vector<int32_t>(values.begin(), values.end()), sizes, kInt32)
                  : Upload(values, sizes, kFloat);
  Tensor flags = TestSession().MakeTensor({n}, kInt32);
  Tensor flat = TestSession().MakeTensor({rows}, kInt64);
  Tensor count = TestSession().MakeTensor({1}, kInt64);
  Tensor out = TestSession().MakeTensor({rows, rank}, kInt64);
  TestQueue().Enqueue(Nonzero::Create(
      TestQueue(), in.option(), in.storage(), flags.option(), flags.storage(), flat.option(),
      flat.storage(), count.option(), count.storage(), out.option(), out.storage()));
  const int64_t total = Download<int64_t>(count, 1)[0];
  const long written = std::min<long>(total, rows);
  return {total, Download<int64_t>(out, static_cast<size_t>(written * rank))};
}

// Host reference: coordinates, outermost first, in row-major element order.
std::vector<int64_t> HostNonzero(const std::vector<float>& values, const std::vector<long>& sizes) {
  std::vector<int64_t> out;
  for (size_t i = 0; i < values.size(); ++i) {
    if (values[i] == 0.0f) continue;
    std::vector<int64_t> coords(sizes.size());
    size_t rest = i;
    for (size_t d = sizes.size(); d-- > 0;) {
      coords[d] = static_cast<int64_t>(rest % sizes[d]);
      rest /= sizes[d];
    }
    out.insert(out.end(), coords.begin(), coords.end());
  }
  return out;
}

std::vector<float> SparseValues(long n, unsigned seed) {
  std::vector<float> v = RandomFloats(n, -1.0f, 1.0f, seed);
  for (long i = 0; i < n; ++i) {
    if (std::fabs(v[i]) < 0.5f) v[i] = 0.0f;  // about half are zero
  }
  v[0] = 0.75f;
  return v;
}

class NonzeroShapeTest : public ::testing::TestWithParam<std::vector<long>> {};

TEST_P(NonzeroShapeTest, MatchesHostScan) {
  const std::vector<long> sizes = GetParam();
  long n = 1;
  for (long s : sizes) n *= s;
  const std::vector<float> v = SparseValues(n, static_cast<unsigned>(n));
  const std::vector<int64_t> expected = HostNonzero(v, sizes);
  const auto [count, coords] = RunNonzero(v, sizes, kFloat, n);
  EXPECT_EQ(count, static_cast<int64_t>(expected.size() / sizes.size()));
  EXPECT_EQ(coords, expected);
}

INSTANTIATE_TEST_SUITE_P(Shapes, NonzeroShapeTest,
                         ::testing::Values(std::vector<long>{1}, std::vector<long>{5},
                                           std::vector<long>{1001}, std::vector<long>{37, 13},
                                           std::vector<long>{4, 5, 6},
                                           std::vector<long>{2, 3, 1, 2, 3, 2}));

TEST(NonzeroTest, IntegersNaNAndFewerRows) {
  std::vector<float> v = {0, 3, 0, -7, 1, 0, 0, 2};
  auto [count, coords] = RunNonzero(v, {2, 4}, kInt32, 8);
  EXPECT_EQ(count, 4);
  EXPECT_EQ(coords, (std::vector<int64_t>{0, 1, 0, 3, 1, 0, 1, 3}));
  // Only the first two rows fit; the count is still the total.
  std::tie(count, coords) = RunNonzero(v, {8}, kFloat, 2);
  EXPECT_EQ(count, 4);
  EXPECT_EQ(coords, (std::vector<int64_t>{1, 3}));
  std::tie(count, coords) = RunNonzero({NAN, 0.0f, -0.0f}, {3}, kFloat, 3);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(coords, (std::vector<int64_t>{0}));
}

TEST(NonzeroTest, ShapeErrors) {
  Tensor in = TestSession().MakeTensor({4, 5}, kFloat),
         flags = TestSession().MakeTensor({20}, kInt32);
  Tensor flat = TestSession().MakeTensor({20}, kInt64),
         count = TestSession().MakeTensor({1}, kInt64);
  Tensor bad = TestSession().MakeTensor({20, 3}, kInt64);
  EXPECT_THROW(Nonzero::Create(TestQueue(), in.option(), in.storage(), flags.option(),
                               flags.storage(), flat.option(), flat.storage(), count.option(),
                               count.storage(), bad.option(), bad.storage()),
               std::runtime_error);
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
