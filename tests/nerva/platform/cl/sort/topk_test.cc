// TopK on the OpenCL device against a host partial sort.

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <vector>

#include "nerva/platform/cl/cl_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

struct TopKCase {
  std::vector<long> sizes;
  int axis;
  long k;
  bool largest;
};

void CheckTopK(const TopKCase& c, unsigned seed) {
  std::vector<long> sizes = c.sizes;
  const int axis = c.axis < 0 ? c.axis + static_cast<int>(sizes.size()) : c.axis;
  long outer = 1, inner = 1;
  for (int i = 0; i < static_cast<int>(sizes.size()); ++i) {
    if (i < axis) outer *= sizes[i];
    if (i > axis) inner *= sizes[i];
  }
  const long len = sizes[axis], n = outer * len * inner;
  const std::vector<float> input = RandomFloats(n, -1000.0f, 1000.0f, seed);
  Tensor in = Upload(input, sizes, kFloat);
  std::vector<long> out_sizes = sizes;
  out_sizes[axis] = c.k;
  Tensor values = TestSession().MakeTensor(out_sizes, kFloat);
  Tensor indices = TestSession().MakeTensor(out_sizes, kInt64);
  TopKOption option;
  option.k = c.k;
  option.dim = c.axis;
  option.largest = c.largest;
  TestQueue().Enqueue(TopK::Create(TestQueue(), option, in.option(), in.storage(), values.option(),
                                   values.storage(), indices.option(), indices.storage()));
  const size_t m = static_cast<size_t>(outer * c.k * inner);
  const std::vector<float> v = Download<float>(values, m);
  const std::vector<int64_t> idx = Download<int64_t>(indices, m);
  for (long o = 0; o < outer; ++o) {
    for (long x = 0; x < inner; ++x) {
      std::vector<float> row(len);
      for (long j = 0; j < len; ++j) row[j] = input[(o * len + j) * inner + x];
      std::vector<float> best = row;
      if (c.largest) {
        std::partial_sort(best.begin(), best.begin() + c.k, best.end(), std::greater<float>());
      } else {
        std::partial_sort(best.begin(), best.begin() + c.k, best.end());
      }
      for (long j = 0; j < c.k; ++j) {
        const size_t at = static_cast<size_t>((o * c.k + j) * inner + x);
        ASSERT_EQ(v[at], best[j]) << "len " << len << " k " << c.k << " row " << o << "," << x
                                  << " at " << j;
        ASSERT_TRUE(idx[at] >= 0 && idx[at] < len);
        ASSERT_EQ(row[idx[at]], v[at]);
      }
    }
  }
}

class TopKTest : public ::testing::TestWithParam<TopKCase> {};

// Both device classes: one item per row where groups run as loops (k <= 32 here),
// the bitonic whole-row and segment programs of GPUs.
TEST_P(TopKTest, MatchesHostPartialSort) {
  for (bool gpu : {false, true}) {
    const GpuPathsForTesting paths(gpu);
    CheckTopK(GetParam(), 11);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, TopKTest,
    ::testing::Values(TopKCase{{5, 37}, -1, 5, true}, TopKCase{{5, 37}, -1, 37, false},
                      TopKCase{{1}, 0, 1, true}, TopKCase{{3, 2048}, 1, 16, true},
                      TopKCase{{300, 4}, 0, 10, false}, TopKCase{{4, 300, 3}, 1, 7, true},
                      TopKCase{{2, 5001}, 1, 16, true}, TopKCase{{2, 5001}, 1, 512, false},
                      TopKCase{{2, 3000, 3}, 1, 20, true}, TopKCase{{2, 3000}, 1, 600, false}));

TEST(TopKErrorTest, KAndShapes) {
  Tensor in = TestSession().MakeTensor({4, 6}, kFloat);
  Tensor v = TestSession().MakeTensor({4, 7}, kFloat), i = TestSession().MakeTensor({4, 7}, kInt64);
  TopKOption option;
  option.k = 7;
  EXPECT_THROW(TopK::Create(TestQueue(), option, in.option(), in.storage(), v.option(), v.storage(),
                            i.option(), i.storage()),
               std::out_of_range);
  option.k = 3;
  EXPECT_THROW(TopK::Create(TestQueue(), option, in.option(), in.storage(), v.option(), v.storage(),
                            i.option(), i.storage()),
               std::runtime_error);
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
