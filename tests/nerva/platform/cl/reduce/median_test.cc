// ReduceWithIndicesMedian on the OpenCL device against a host sort: lower
// median and its index, ties, NaN for median and nanmedian.

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>

#include "nerva/platform/cl/reduce/reduce_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

// (value, index) of the lower median of v by PyTorch's rules, equal values ranked by index.
std::pair<double, long> ReferenceMedian(const std::vector<double>& v, bool ignore_nan) {
  std::vector<std::pair<double, long>> kept;
  long first_nan = -1;
  for (long i = 0; i < static_cast<long>(v.size()); ++i) {
    if (std::isnan(v[i])) {
      if (first_nan < 0) first_nan = i;
    } else {
      kept.push_back({v[i], i});
    }
  }
  if ((first_nan >= 0 && !ignore_nan) || kept.empty()) return {NAN, first_nan};
  std::stable_sort(kept.begin(), kept.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  return kept[(kept.size() - 1) / 2];
}

void RunMedianCase(std::vector<long> sizes, int dim, const std::vector<double>& x, bool ignore_nan,
                   DataType type = kFloat) {
  SCOPED_TRACE(StrCat("sizes ", Shape(sizes), " dim ", dim, ignore_nan ? " nanmedian" : ""));
  long outer = 1, inner = 1;
  for (int i = 0; i < dim; ++i) outer *= sizes[i];
  for (size_t i = dim + 1; i < sizes.size(); ++i) inner *= sizes[i];
  const long n = sizes[dim];
  std::vector<long> out_sizes = sizes;
  out_sizes.erase(out_sizes.begin() + dim);
  if (out_sizes.empty()) out_sizes.push_back(1);
  Tensor input = UploadAs(x, sizes, type);
  Tensor values = MakeOutput(out_sizes, type);
  Tensor indices = MakeOutput(out_sizes, kInt64);
  Tensor temp = MakeOutput({1}, type);
  Tensor temp_indices = MakeOutput({1}, kInt64);
  ReduceWithIndicesMedianOption option;
  option.dim = dim;
  option.ignore_nan = ignore_nan;
  TestQueue().Enqueue(ReduceWithIndicesMedian::Create(
      TestQueue(), option, input.option(), input.storage(), values.option(), values.storage(),
      indices.option(), indices.storage(), temp.option(), temp.storage(), temp_indices.option(),
      temp_indices.storage()));
  const std::vector<double> got_values = DownloadAs(values);
  const std::vector<double> got_indices = DownloadAs(indices);
  for (long o = 0; o < outer; ++o) {
    for (long i = 0; i < inner; ++i) {
      std::vector<double> slice;
      for (long k = 0; k < n; ++k) slice.push_back(x[(o * n + k) * inner + i]);
      const auto [value, index] = ReferenceMedian(slice, ignore_nan);
      const long at = o * inner + i;
      if (std::isnan(value)) {
        EXPECT_TRUE(std::isnan(got_values[at])) << "at " << at;
        EXPECT_EQ(got_indices[at], std::max(index, 0L)) << "at " << at;
      } else {
        EXPECT_EQ(got_values[at], value) << "at " << at;
        EXPECT_EQ(got_indices[at], index) << "at " << at;
      }
    }
  }
}

TEST(ClMedianTest, LowerMedianAndIndex) {
  RunMedianCase({5, 7}, 1, RoundTrip(RandomValues(35, -9, 9, 1400), kFloat), false);
  RunMedianCase({4, 130}, 1, RoundTrip(RandomValues(520, -9, 9, 1401), kFloat), false);
  RunMedianCase({6, 3, 4}, 1, RoundTrip(RandomValues(72, -9, 9, 1402), kFloat), false);
  // Ties: few distinct integers.
  RunMedianCase({3, 40}, 1, RandomValues(120, 0, 4, 1403, true), false, kInt32);
  RunMedianCase({1}, 0, {2.5}, false);
}

TEST(ClMedianTest, NaNForMedianAndNanmedian) {
  std::vector<double> x = RoundTrip(RandomValues(4 * 9, -9, 9, 1410), kFloat);
  x[3] = NAN;
  x[5] = NAN;
  for (long k = 18; k < 27; ++k) x[k] = NAN;  // row 2: NaN only
  RunMedianCase({4, 9}, 1, x, false);
  RunMedianCase({4, 9}, 1, x, true);
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
