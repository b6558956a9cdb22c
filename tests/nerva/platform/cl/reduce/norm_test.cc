// LinalgVectorNorm, Renorm and MaxNorm on the OpenCL device against
// double-precision host references.

#include <cmath>
#include <stdexcept>
#include <string>

#include "nerva/platform/cl/reduce/reduce_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

double Norm(const std::vector<double>& v, double p) {
  double acc = std::isinf(p) && p < 0 ? INFINITY : 0;
  for (double x : v) {
    const double a = std::fabs(x);
    if (std::isinf(p)) {
      acc = p > 0 ? std::max(acc, a) : std::min(acc, a);
    } else if (p == 0) {
      acc += x != 0;
    } else {
      acc += std::pow(a, p);
    }
  }
  return std::isinf(p) || p == 0 ? acc : std::pow(acc, 1 / p);
}

// Norms of the rows of an (outer x n x inner) view along its middle axis.
std::vector<double> SliceNorms(const std::vector<double>& x, long outer, long n, long inner,
                               double p) {
  std::vector<double> out;
  for (long o = 0; o < outer; ++o) {
    for (long i = 0; i < inner; ++i) {
      std::vector<double> v;
      for (long k = 0; k < n; ++k) v.push_back(x[(o * n + k) * inner + i]);
      out.push_back(Norm(v, p));
    }
  }
  return out;
}

void RunNormCase(float ord, std::vector<long> sizes, std::vector<int> dim, long outer, long n,
                 long inner, std::vector<long> out_sizes, unsigned seed, DataType type = kFloat) {
  SCOPED_TRACE(StrCat("ord ", ord, " sizes ", Shape(sizes), " type ", type));
  std::vector<double> x = RoundTrip(RandomValues(Count(sizes), -3, 3, seed), type);
  if (ord == 0.0f) {
    for (size_t i = 0; i < x.size(); i += 3) x[i] = 0;
  }
  Tensor input = UploadAs(x, sizes, type);
  Tensor output = MakeOutput(out_sizes, type);
  LinalgVectorNormOption option;
  option.ord = ord;
  option.dim = dim;
  option.keepdim = out_sizes.size() == sizes.size();
  TestQueue().Enqueue(LinalgVectorNorm::Create(TestQueue(), option, input.option(), input.storage(),
                                               output.option(), output.storage()));
  const std::vector<double> got = DownloadAs(output);
  const std::vector<double> want = SliceNorms(x, outer, n, inner, ord);
  for (size_t i = 0; i < want.size(); ++i) {
    EXPECT_NEAR(got[i], want[i], (type == kHalf ? 2e-3 : 2e-5) * (1 + std::fabs(want[i])))
        << "at " << i;
  }
}

TEST(ClNormTest, VectorNormOrders) {
  unsigned seed = 1100;
  for (float ord : {0.0f, 1.0f, 2.0f, 3.0f, 0.5f, INFINITY, -INFINITY}) {
    RunNormCase(ord, {5, 37}, {1}, 5, 37, 1, {5}, seed++);
  }
  // Two-pass full reduction, column and middle paths, half.
  RunNormCase(2.0f, {5000}, {}, 1, 5000, 1, {1}, seed++);
  RunNormCase(INFINITY, {9, 6}, {0}, 1, 9, 6, {1, 6}, seed++);
  RunNormCase(1.0f, {3, 8, 5}, {1}, 3, 8, 5, {3, 5}, seed++);
  RunNormCase(2.0f, {4, 70}, {-1}, 4, 70, 1, {4}, seed++, kHalf);
}

TEST(ClNormTest, VectorNormMessages) {
  Buffer buffer = TestSession().MakeBuffer(kMemReadWrite, 4096);
  LinalgVectorNormOption option;
  option.dim = {0, 2};
  try {
    LinalgVectorNorm::Create(TestQueue(), option, TensorOption{Shape({2, 3, 4, 5}), kFloat}, buffer,
                             TensorOption{Shape({3, 5}), kFloat}, buffer);
    ADD_FAILURE() << "no exception";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(),
                 "LinalgVectorNorm only support consecutive axes or axes is [0,2] or [0,2,3]");
  }
  option.dim = {1};
  EXPECT_THROW(LinalgVectorNorm::Create(TestQueue(), option, TensorOption{Shape({2, 3}), kInt32},
                                        buffer, TensorOption{Shape({2}), kFloat}, buffer),
               std::invalid_argument);
}

void RunRenormCase(float p, float maxnorm, std::vector<long> sizes, int dim, bool in_place,
                   unsigned seed) {
  SCOPED_TRACE(StrCat("p ", p, " sizes ", Shape(sizes), " dim ", dim));
  const std::vector<double> x = RoundTrip(RandomValues(Count(sizes), -2, 2, seed), kFloat);
  Tensor input = UploadAs(x, sizes, kFloat);
  Tensor output = in_place ? input : MakeOutput(sizes, kFloat);
  RenormOption option;
  option.p = p;
  option.dim = dim;
  option.maxnorm = maxnorm;
  TestQueue().Enqueue(Renorm::Create(TestQueue(), option, input.option(), input.storage(),
                                     output.option(), output.storage()));
  const std::vector<double> got = DownloadAs(output);
  long outer = 1, inner = 1;
  for (int i = 0; i < dim; ++i) outer *= sizes[i];
  for (size_t i = dim + 1; i < sizes.size(); ++i) inner *= sizes[i];
  const long n = sizes[dim];
  bool scaled = false, kept = false;
  for (long k = 0; k < n; ++k) {
    std::vector<double> slice;
    for (long o = 0; o < outer; ++o) {
      for (long i = 0; i < inner; ++i) slice.push_back(x[(o * n + k) * inner + i]);
    }
    const double norm = Norm(slice, p);
    const double scale = norm > maxnorm ? maxnorm / (norm + 1e-7) : 1.0;
    (scale < 1 ? scaled : kept) = true;
    for (long o = 0; o < outer; ++o) {
      for (long i = 0; i < inner; ++i) {
        const long at = (o * n + k) * inner + i;
        ASSERT_NEAR(got[at], x[at] * scale, 1e-5) << "at " << at;
      }
    }
  }
  EXPECT_TRUE(scaled && kept) << "choose maxnorm between the slice norms";
}

TEST(ClNormTest, Renorm) {
  RunRenormCase(2.0f, 2.5f, {6, 5}, 0, false, 1200);
  RunRenormCase(1.0f, 9.0f, {3, 6, 4}, 1, false, 1201);
  RunRenormCase(INFINITY, 1.8f, {4, 70}, 1, true, 1202);
  RunRenormCase(3.0f, 2.7f, {7, 2, 5}, 0, true, 1203);
}

TEST(ClNormTest, MaxNormRenormalisesNamedRowsOnce) {
  const long rows = 6, cols = 33;
  const std::vector<double> w = RoundTrip(RandomValues(rows * cols, -1, 1, 1300), kFloat);
  // Row 1 twice, row 4 once, an out-of-range and a negative index skipped.
  const std::vector<double> index_values = {1, 4, 1, 6, -1};
  for (DataType index_type : {kInt64, kInt32}) {
    Tensor weight = UploadAs(w, {rows, cols}, kFloat);
    Tensor indices = UploadAs(index_values, {5}, index_type);
    MaxNormOption option;
    option.max_norm = 1.5;
    option.norm_type = 2.0;
    TestQueue().Enqueue(MaxNorm::Create(TestQueue(), option, weight.option(), weight.storage(),
                                        indices.option(), indices.storage()));
    const std::vector<double> got = DownloadAs(weight);
    for (long r = 0; r < rows; ++r) {
      std::vector<double> row(w.begin() + r * cols, w.begin() + (r + 1) * cols);
      const double norm = Norm(row, 2);
      const bool named = r == 1 || r == 4;
      const double scale = named && norm > 1.5 ? 1.5 / (norm + 1e-7) : 1.0;
      for (long c = 0; c < cols; ++c) {
        ASSERT_NEAR(got[r * cols + c], row[c] * scale, 1e-6) << "row " << r;
      }
    }
  }
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
