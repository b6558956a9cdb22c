// Cumsum on the OpenCL device against a double-precision running sum: rows
// shorter and longer than one scan tile, other axes, in place, integer types.

#include <cmath>
#include <stdexcept>
#include <string>

#include "nerva/platform/cl/reduce/reduce_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

std::vector<double> ReferenceCumsum(const std::vector<double>& x, const std::vector<long>& sizes,
                                    int dim) {
  long outer = 1, inner = 1;
  for (int i = 0; i < dim; ++i) outer *= sizes[i];
  for (size_t i = dim + 1; i < sizes.size(); ++i) inner *= sizes[i];
  const long n = sizes[dim];
  std::vector<double> out(x.size());
  for (long o = 0; o < outer; ++o) {
    for (long i = 0; i < inner; ++i) {
      double total = 0;
      for (long k = 0; k < n; ++k) {
        const long at = o * n * inner + k * inner + i;
        total += x[at];
        out[at] = total;
      }
    }
  }
  return out;
}

struct CumsumCase {
  std::vector<long> sizes;
  int dim;
  DataType in = kFloat;
  DataType out = kFloat;
  bool in_place = false;
};

void RunCumsumCase(const CumsumCase& c, unsigned seed) {
  SCOPED_TRACE(StrCat("sizes ", Shape(c.sizes), " dim ", c.dim, " in ", c.in, " out ", c.out,
                      c.in_place ? " in place" : ""));
  const size_t n = static_cast<size_t>(Count(c.sizes));
  const bool integral = c.in != kFloat && c.in != kHalf;
  const std::vector<double> x = RoundTrip(RandomValues(n, -10, 10, seed, integral), c.in);
  Tensor input = UploadAs(x, c.sizes, c.in);
  Tensor output = c.in_place ? input : MakeOutput(c.sizes, c.out);
  TestQueue().Enqueue(Cumsum::Create(TestQueue(), CumsumOption{c.dim}, input.option(),
                                     input.storage(), output.option(), output.storage()));
  const std::vector<double> got = DownloadAs(output);
  const int dim = c.dim < 0 ? c.dim + static_cast<int>(c.sizes.size()) : c.dim;
  const std::vector<double> want = ReferenceCumsum(x, c.sizes, dim);
  for (size_t i = 0; i < n; ++i) {
    if (integral) {
      ASSERT_EQ(got[i], want[i]) << "at " << i;
    } else {
      const double tol = (c.out == kHalf ? 2e-3 : 2e-6) * (std::fabs(want[i]) + 10 * 50);
      ASSERT_NEAR(got[i], want[i], tol) << "at " << i;
    }
  }
}

TEST(ClCumsumTest, RowsAcrossScanTiles) {
  // A tile holds 128 elements: one, exactly one, just over one, many.
  unsigned seed = 900;
  for (long n : {1L, 5L, 127L, 128L, 129L, 1000L}) RunCumsumCase({{3, n}, -1}, seed++);
  RunCumsumCase({{2, 3, 300}, 2, kHalf, kFloat}, seed++);
  RunCumsumCase({{4, 257}, 1, kInt32, kInt64}, seed++);
  RunCumsumCase({{2, 200}, 1, kFloat, kFloat, true}, seed++);
}

TEST(ClCumsumTest, OtherAxesAndInPlace) {
  unsigned seed = 950;
  RunCumsumCase({{7, 5}, 0}, seed++);
  RunCumsumCase({{3, 6, 4}, 1}, seed++);
  RunCumsumCase({{3, 6, 4}, 0, kInt8, kInt64}, seed++);
  RunCumsumCase({{3, 6, 4}, 1, kFloat, kFloat, true}, seed++);
}

TEST(ClCumsumTest, RejectsBadArguments) {
  Buffer buffer = TestSession().MakeBuffer(kMemReadWrite, 4096);
  const TensorOption x{Shape({2, 3}), kFloat};
  try {
    Cumsum::Create(TestQueue(), CumsumOption{-3}, x, buffer, x, buffer);
    ADD_FAILURE() << "no exception";
  } catch (const std::out_of_range& e) {
    EXPECT_NE(std::string(e.what()).find("Cumsum: axis -3 is out of range"), std::string::npos);
  }
  EXPECT_THROW(Cumsum::Create(TestQueue(), CumsumOption{0}, x, buffer,
                              TensorOption{Shape({3, 2}), kFloat}, buffer),
               std::runtime_error);
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
