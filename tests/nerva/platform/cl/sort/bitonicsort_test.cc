// BitonicSort and BitonicSortWithIndices on the OpenCL device against host sorts.

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

#include "nerva/platform/cl/cl_test_util.h"
#include "nerva/platform/cl/kernel/sort/bitonicsort.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

struct SortResult {
  std::vector<float> values;
  std::vector<int64_t> indices;
};

Tensor Scratch(std::vector<long> sizes, int axis, DataType dtype) {
  if (axis < 0) axis += static_cast<int>(sizes.size());
  sizes[axis] = BitonicExtendedLength(sizes[axis]);
  return TestSession().MakeTensor(sizes, dtype);
}

// Sorts `input` (float values stored as `dtype`: kFloat, kHalf or kInt32).
SortResult RunSort(const std::vector<float>& input, std::vector<long> sizes, int axis,
                   bool descending, bool with_indices, DataType dtype = kFloat) {
  const size_t n = input.size();
  Tensor in;
  if (dtype == kHalf) {
    std::vector<uint16_t> bits(n);
    std::transform(input.begin(), input.end(), bits.begin(), FloatToHalf);
    in = Upload(bits, sizes, kHalf);
  } else if (dtype == kInt32) {
    std::vector<int32_t> ints(input.begin(), input.end());
    in = Upload(ints, sizes, kInt32);
  } else {
    in = Upload(input, sizes, kFloat);
  }
  Tensor out = TestSession().MakeTensor(sizes, dtype);
  Tensor temp = Scratch(sizes, axis, dtype);
  BitonicSortOption option;
  option.dim = axis;
  option.descending = descending;
  SortResult result;
  if (with_indices) {
    Tensor indices = TestSession().MakeTensor(sizes, kInt64);
    Tensor temp_indices = Scratch(sizes, axis, kInt32);
    TestQueue().Enqueue(
        BitonicSort::Create(TestQueue(), option, in.option(), in.storage(), temp.option(),
                            temp.storage(), out.option(), out.storage(), temp_indices.option(),
                            temp_indices.storage(), indices.option(), indices.storage()));
    result.indices = Download<int64_t>(indices, n);
  } else {
    TestQueue().Enqueue(BitonicSort::Create(TestQueue(), option, in.option(), in.storage(),
                                            temp.option(), temp.storage(), out.option(),
                                            out.storage()));
  }
  if (dtype == kHalf) {
    for (uint16_t h : Download<uint16_t>(out, n)) result.values.push_back(HalfToFloat(h));
  } else if (dtype == kInt32) {
    for (int32_t v : Download<int32_t>(out, n)) result.values.push_back(static_cast<float>(v));
  } else {
    result.values = Download<float>(out, n);
  }
  return result;
}

// Every row along `axis` is the host's sort of the input row; with indices,
// values[i] == input[indices[i]] and the indices are a permutation of the row.
void CheckSorted(const std::vector<float>& input, const std::vector<long>& sizes, int axis,
                 bool descending, const SortResult& r) {
  if (axis < 0) axis += static_cast<int>(sizes.size());
  long outer = 1, inner = 1;
  for (int i = 0; i < static_cast<int>(sizes.size()); ++i) {
    if (i < axis) outer *= sizes[i];
    if (i > axis) inner *= sizes[i];
  }
  const long len = sizes[axis];
  for (long o = 0; o < outer; ++o) {
    for (long c = 0; c < inner; ++c) {
      const auto at = [&](long k) { return static_cast<size_t>((o * len + k) * inner + c); };
      std::vector<float> row(len);
      for (long k = 0; k < len; ++k) row[k] = input[at(k)];
      std::sort(row.begin(), row.end());
      if (descending) std::reverse(row.begin(), row.end());
      std::vector<bool> seen(len, false);
      for (long k = 0; k < len; ++k) {
        ASSERT_EQ(r.values[at(k)], row[k]) << "row " << o << "," << c << " at " << k;
        if (r.indices.empty()) continue;
        const int64_t idx = r.indices[at(k)];
        ASSERT_TRUE(idx >= 0 && idx < len && !seen[idx]) << "index " << idx << " at " << k;
        seen[idx] = true;
        ASSERT_EQ(r.values[at(k)], input[at(idx)]) << "at " << k;
      }
    }
  }
}

void CheckCase(std::vector<long> sizes, int axis, bool descending, bool with_indices,
               unsigned seed) {
  long n = 1;
  for (long s : sizes) n *= s;
  const std::vector<float> input = RandomFloats(n, -100.0f, 100.0f, seed);
  SCOPED_TRACE(::testing::Message() << "sizes " << sizes[0] << "... axis " << axis << " desc "
                                    << descending << " indices " << with_indices);
  CheckSorted(input, sizes, axis, descending,
              RunSort(input, sizes, axis, descending, with_indices));
}

struct LengthCase {
  long rows, length;
};

class BitonicLengthTest : public ::testing::TestWithParam<LengthCase> {};

// Single-launch rows (up to 2048 keys) and per-pass launches beyond.
TEST_P(BitonicLengthTest, BothDirectionsWithAndWithoutIndices) {
  const LengthCase c = GetParam();
  CheckCase({c.rows, c.length}, 1, false, true, 1);
  CheckCase({c.rows, c.length}, 1, true, true, 2);
  CheckCase({c.rows, c.length}, -1, c.length % 2 == 0, false, 3);
}

INSTANTIATE_TEST_SUITE_P(Lengths, BitonicLengthTest,
                         ::testing::Values(LengthCase{3, 1}, LengthCase{4, 5}, LengthCase{2, 8},
                                           LengthCase{3, 2048}, LengthCase{2, 2049},
                                           LengthCase{1, 100000}));

TEST(BitonicSortTest, InnerAndMiddleAxes) {
  CheckCase({37, 6}, 0, false, true, 4);        // along y of a 2-D view
  CheckCase({3, 37, 5}, 1, true, true, 5);      // middle axis, 3-D view
  CheckCase({2, 3000, 3}, 1, false, true, 6);   // middle axis, per-pass launches
  CheckCase({2, 3, 4, 9}, 2, false, false, 7);  // rank 4
}

TEST(BitonicSortTest, HalfAndIntegerValuesStayExact) {
  const std::vector<float> h = RandomFloats(300, -50.0f, 50.0f, 8);
  std::vector<float> rounded(h.size());
  std::transform(h.begin(), h.end(), rounded.begin(),
                 [](float v) { return HalfToFloat(FloatToHalf(v)); });
  CheckSorted(rounded, {300}, 0, false, RunSort(rounded, {300}, 0, false, true, kHalf));
  // Integers above 2^24 differ only past float precision: values come back
  // exactly as stored, each beside its own index.
  std::vector<int32_t> big = {33554433, 7, 33554435, -2, 33554434, 100000000, 5};
  Tensor in = Upload(big, {7}, kInt32), out = TestSession().MakeTensor({7}, kInt32);
  Tensor temp = TestSession().MakeTensor({8}, kInt32), ti = TestSession().MakeTensor({8}, kInt32);
  Tensor idx = TestSession().MakeTensor({7}, kInt32);
  TestQueue().Enqueue(BitonicSort::Create(
      TestQueue(), BitonicSortOption(), in.option(), in.storage(), temp.option(), temp.storage(),
      out.option(), out.storage(), ti.option(), ti.storage(), idx.option(), idx.storage()));
  const std::vector<int32_t> values = Download<int32_t>(out, 7),
                             indices = Download<int32_t>(idx, 7);
  for (size_t i = 0; i < 7; ++i) EXPECT_EQ(values[i], big[indices[i]]) << i;
  EXPECT_EQ(values[0], -2);
  EXPECT_EQ(values[6], 100000000);
}

TEST(BitonicSortTest, DescendingNaNStaysInPlace) {
  const std::vector<float> input = {1.0f, NAN, 0.0f};
  const SortResult r = RunSort(input, {3}, 0, true, true);
  EXPECT_EQ(r.values[0], 1.0f);
  EXPECT_TRUE(std::isnan(r.values[1]));
  EXPECT_EQ(r.values[2], 0.0f);
  EXPECT_EQ(r.indices, (std::vector<int64_t>{0, 1, 2}));
}

TEST(BitonicSortTest, InPlaceSort) {
  const std::vector<float> input = RandomFloats(1000, -1.0f, 1.0f, 9);
  Tensor x = Upload(input, {1000}, kFloat), temp = TestSession().MakeTensor({1024}, kFloat);
  TestQueue().Enqueue(BitonicSort::Create(TestQueue(), BitonicSortOption(), x.option(), x.storage(),
                                          temp.option(), temp.storage(), x.option(), x.storage()));
  std::vector<float> expected = input;
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(Download<float>(x, 1000), expected);
}

// Rows with ties, NaN, infinities and both zeros: the network leaves NaN
// where no comparison moves it, so the CPU programs (one item per row or per
// block of 2048, keys in vectors) must give exactly the values and indices of
// the one-group and per-pass programs.
std::vector<float> SpecialFloats(size_t n, unsigned seed) {
  std::vector<float> v = RandomFloats(n, -8.0f, 8.0f, seed);
  const float special[] = {NAN, INFINITY, -INFINITY, 0.0f, -0.0f, 2.0f, 2.0f};
  for (size_t i = 0; i < n; ++i) {
    if (i % 5 == 1) v[i] = special[(i / 5) % 7];
    if (i % 7 == 3) v[i] = std::round(v[i]);  // ties
  }
  return v;
}

void ExpectSameBits(const SortResult& a, const SortResult& b, const char* what) {
  ASSERT_EQ(a.values.size(), b.values.size());
  for (size_t i = 0; i < a.values.size(); ++i) {
    uint32_t x, y;
    std::memcpy(&x, &a.values[i], 4);
    std::memcpy(&y, &b.values[i], 4);
    ASSERT_EQ(x, y) << what << " value at " << i;
  }
  EXPECT_EQ(a.indices, b.indices) << what;
}

struct RowsCase {
  std::vector<long> sizes;
  int axis;
  bool descending, with_indices;
  DataType dtype;
};

TEST(BitonicSortTest, CpuRowsProgramMatchesTheGroupProgram) {
  // Shapes and options the other tests build too where possible (every row
  // length is its own program build).
  const RowsCase cases[] = {
      {{2, 2048}, 1, false, true, kFloat},
      {{2, 2048}, 1, true, true, kFloat},
      {{37, 6}, 0, false, true, kFloat},
      {{3, 37, 5}, 1, true, true, kFloat},
      {{300}, 0, false, true, kHalf},
      {{2, 300}, 1, true, true, kInt32},
      // Longer rows: blocks of 2048 positions between the per-pass launches.
      {{2, 2049}, 1, true, true, kFloat},
      {{1, 2049}, 1, false, true, kInt32},
  };

  unsigned seed = 20;
  for (const RowsCase& c : cases) {
    long n = 1;
    for (long s : c.sizes) n *= s;
    std::vector<float> input = SpecialFloats(n, ++seed);
    if (c.dtype != kFloat) {
      for (float& x : input) x = std::isfinite(x) ? std::round(x * 100.0f) : 7.0f;
    }
    const SortResult cpu = RunSort(input, c.sizes, c.axis, c.descending, c.with_indices, c.dtype);
    GpuPathsForTesting gpu;
    const SortResult group = RunSort(input, c.sizes, c.axis, c.descending, c.with_indices, c.dtype);
    SCOPED_TRACE(::testing::Message() << "case " << seed);
    ExpectSameBits(cpu, group, "rows vs group");
  }
}

// Rows without NaN sort fully, infinities included where no filler key
// takes part (filler keys tie with the infinity on their side).
TEST(BitonicSortTest, CpuRowsInfinitiesAndLengths) {
  for (long len : {1L, 2L, 3L, 9L, 17L, 2048L}) {
    const bool descending = len % 2 == 0, full = BitonicExtendedLength(len) == len;
    std::vector<float> input = SpecialFloats(static_cast<size_t>(len), 40 + len);
    for (float& x : input) {
      if (std::isnan(x) || (!full && x == (descending ? -INFINITY : INFINITY))) x = 1.5f;
    }
    CheckSorted(input, {len}, 0, descending, RunSort(input, {len}, 0, descending, true));
  }
}

TEST(BitonicSortTest, CpuRowsInPlaceIntegers) {
  std::vector<int32_t> values(1500);
  for (size_t i = 0; i < values.size(); ++i)
    values[i] = 33554432 + static_cast<int32_t>((i * 7919) % 1500);
  Tensor x = Upload(values, {1500}, kInt32), temp = TestSession().MakeTensor({2048}, kInt32);
  TestQueue().Enqueue(BitonicSort::Create(TestQueue(), BitonicSortOption(), x.option(), x.storage(),
                                          temp.option(), temp.storage(), x.option(), x.storage()));
  const std::vector<int32_t> got = Download<int32_t>(x, 1500);
  // Keys above 2^24 tie in float: the values stay a permutation of the input.
  std::vector<int32_t> a = got, b = values;
  std::sort(a.begin(), a.end());
  std::sort(b.begin(), b.end());
  EXPECT_EQ(a, b);
  for (size_t i = 1; i < got.size(); ++i) {
    ASSERT_LE(static_cast<float>(got[i - 1]), static_cast<float>(got[i])) << i;
  }
}

TEST(BitonicSortTest, StagesAndScratchMessages) {
  EXPECT_EQ(BitonicStages(1), 0);
  EXPECT_EQ(BitonicStages(2), 0);
  EXPECT_EQ(BitonicStages(5), 2);
  EXPECT_EQ(BitonicExtendedLength(2048), 2048);
  EXPECT_EQ(BitonicExtendedLength(2049), 4096);
  Tensor in = TestSession().MakeTensor({4, 5}, kFloat),
         out = TestSession().MakeTensor({4, 5}, kFloat);
  Tensor good = TestSession().MakeTensor({4, 8}, kFloat),
         bad = TestSession().MakeTensor({4, 16}, kFloat);
  Tensor idx = TestSession().MakeTensor({4, 5}, kInt64),
         bad_idx = TestSession().MakeTensor({4, 4}, kInt32);
  try {
    BitonicSort::Create(TestQueue(), BitonicSortOption(), in.option(), in.storage(), bad.option(),
                        bad.storage(), out.option(), out.storage());
    FAIL();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(),
                 "temp tensor's axis_size should be 2^n, n = max(ceil(log2(input_axis_size/2)),0)");
  }
  try {
    BitonicSort::Create(TestQueue(), BitonicSortOption(), in.option(), in.storage(), good.option(),
                        good.storage(), out.option(), out.storage(), bad_idx.option(),
                        bad_idx.storage(), idx.option(), idx.storage());
    FAIL();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(),
                 "temp_indices tensor's axis_size should be 2^n, n = "
                 "max(ceil(log2(input_axis_size/2)),0)");
  }
  BitonicSortOption far;
  far.dim = 2;
  EXPECT_THROW(BitonicSort::Create(TestQueue(), far, in.option(), in.storage(), good.option(),
                                   good.storage(), out.option(), out.storage()),
               std::out_of_range);
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
