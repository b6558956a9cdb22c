// ArgMax, ArgMin and ReduceWithIndices on the OpenCL device against host
// references, on the innermost-axis (row and group forms) and column paths.

#include <cmath>
#include <stdexcept>
#include <string>

#include "nerva/platform/cl/kernel/reduce/argmax.h"
#include "nerva/platform/cl/kernel/reduce/argmin.h"
#include "nerva/platform/cl/kernel/reduce/reducewithindices.h"
#include "nerva/platform/cl/reduce/reduce_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

enum class Mode { kArgMax, kArgMin, kMax, kMin };

// Index of the best element of x[base + k * stride], k < n, by the operator's rules:
// argmax/argmin keep the running best only when strictly better (ties and NaN
// go to the later element); max/min let NaN win and keep the earlier index on ties.
long ReferenceIndex(const std::vector<double>& x, long base, long stride, long n, Mode mode) {
  long best = 0;
  for (long k = 1; k < n; ++k) {
    const double a = x[base + best * stride];
    const double b = x[base + k * stride];
    bool replace = false;
    switch (mode) {
      case Mode::kArgMax:
        replace = !(a > b);
        break;
      case Mode::kArgMin:
        replace = !(a < b);
        break;
      case Mode::kMax:
        replace = !std::isnan(a) && (std::isnan(b) || b > a);
        break;
      case Mode::kMin:
        replace = !std::isnan(a) && (std::isnan(b) || b < a);
        break;
    }
    if (replace) best = k;
  }
  return best;
}

struct ArgCase {
  Mode mode;
  std::vector<long> sizes;
  int dim;
  DataType in = kFloat;
  DataType index = kInt64;
  bool keepdim = false;
};

void RunArgCase(const ArgCase& c, const std::vector<double>& x) {
  SCOPED_TRACE(StrCat("mode ", static_cast<int>(c.mode), " sizes ", Shape(c.sizes), " dim ", c.dim,
                      " in ", c.in));
  const int rank = static_cast<int>(c.sizes.size());
  const int dim = c.dim < 0 ? c.dim + rank : c.dim;
  long outer = 1, inner = 1;
  for (int i = 0; i < dim; ++i) outer *= c.sizes[i];
  for (int i = dim + 1; i < rank; ++i) inner *= c.sizes[i];
  std::vector<long> out_sizes;
  for (int i = 0; i < rank; ++i) {
    if (i != dim) out_sizes.push_back(c.sizes[i]);
    if (i == dim && c.keepdim) out_sizes.push_back(1);
  }
  if (out_sizes.empty()) out_sizes.push_back(1);

  Tensor input = UploadAs(x, c.sizes, c.in);
  Tensor indices = MakeOutput(out_sizes, c.index);
  Tensor values = MakeOutput(out_sizes, c.in);
  Kernel kernel;
  switch (c.mode) {
    case Mode::kArgMax:
      kernel = ArgMax::Create(TestQueue(), ArgMaxOption{c.dim, c.keepdim}, input.option(),
                              input.storage(), indices.option(), indices.storage());
      break;
    case Mode::kArgMin:
      kernel = ArgMin::Create(TestQueue(), ArgMinOption{c.dim, c.keepdim}, input.option(),
                              input.storage(), indices.option(), indices.storage());
      break;
    default: {
      ReduceWithIndicesOption option;
      option.op_type = c.mode == Mode::kMax ? ReduceType::kMax : ReduceType::kMin;
      option.dim = c.dim;
      option.keepdim = c.keepdim;
      kernel = ReduceWithIndices::Create(TestQueue(), option, input.option(), input.storage(),
                                         values.option(), values.storage(), indices.option(),
                                         indices.storage());
    }
  }
  TestQueue().Enqueue(kernel);
  const std::vector<double> got = DownloadAs(indices);
  const std::vector<double> got_values = DownloadAs(values);
  const long n = c.sizes[dim];
  for (long o = 0; o < outer; ++o) {
    for (long i = 0; i < inner; ++i) {
      const long at = o * inner + i;
      const long want = ReferenceIndex(x, o * n * inner + i, inner, n, c.mode);
      ASSERT_EQ(got[at], want) << "at " << at;
      if (c.mode == Mode::kMax || c.mode == Mode::kMin) {
        const double v = x[o * n * inner + want * inner + i];
        if (std::isnan(v)) {
          EXPECT_TRUE(std::isnan(got_values[at])) << "at " << at;
        } else {
          EXPECT_EQ(got_values[at], v) << "at " << at;
        }
      }
    }
  }
}

TEST(ClArgReduceTest, InnermostAndColumnPaths) {
  unsigned seed = 500;
  const Mode modes[] = {Mode::kArgMax, Mode::kArgMin, Mode::kMax, Mode::kMin};
  for (bool gpu : {false, true}) {
    SCOPED_TRACE(gpu ? "group form" : "row form");
    const GpuPathsForTesting paths(gpu);
    for (Mode mode : modes) {
      // One leftover element on every row length for the group form; the row
      // form's 16-wide vectors meet 1, 5, 17, 65 and 4097.
      for (long n : {1L, 5L, 17L, 65L, 4097L}) {
        const ArgCase c{mode, {3, n}, -1};
        RunArgCase(c, RoundTrip(RandomValues(3 * n, -50, 50, seed++), kFloat));
      }
      const ArgCase column{mode, {4, 7, 5}, 1, kFloat, kInt32, true};
      RunArgCase(column, RoundTrip(RandomValues(140, -50, 50, seed++), kFloat));
    }
  }
}

TEST(ClArgReduceTest, TiesNaNAndTypes) {
  // ArgMax of [1, 3, 3] is 2: the later of equal maxima.
  RunArgCase({Mode::kArgMax, {3}, 0}, {1, 3, 3});
  RunArgCase({Mode::kArgMin, {2, 3}, 0}, {1, 0, 5, 1, 0, 2});
  // Many ties across lanes and work items: integer input with few values.
  RunArgCase({Mode::kArgMax, {2, 1001}, 1, kInt32}, RandomValues(2002, 0, 3, 510, true));
  RunArgCase({Mode::kMax, {2, 1001}, 1, kInt32}, RandomValues(2002, 0, 3, 511, true));
  RunArgCase({Mode::kMin, {1001, 2}, 0, kInt32}, RandomValues(2002, 0, 3, 512, true));
  // NaN: argmax moves past it (unless it comes last), max propagates it.
  std::vector<double> x = RoundTrip(RandomValues(2 * 9, -5, 5, 513), kFloat);
  x[0] = NAN;
  x[9 + 8] = NAN;
  RunArgCase({Mode::kArgMax, {2, 9}, 1}, x);
  RunArgCase({Mode::kMax, {2, 9}, 1}, x);
  RunArgCase({Mode::kMin, {2, 9}, 1}, x);
  // Half input.
  RunArgCase({Mode::kArgMax, {5, 33}, -1, kHalf}, RoundTrip(RandomValues(165, -9, 9, 514), kHalf));
}

TEST(ClArgReduceTest, NaNInsideLongRowsOnBothDeviceClasses) {
  // NaN well inside rows that span several vectors (and a leading leftover):
  // argmax/argmin restart after it, max/min take the first one.
  unsigned seed = 520;
  for (bool gpu : {false, true}) {
    SCOPED_TRACE(gpu ? "group form" : "row form");
    const GpuPathsForTesting paths(gpu);
    for (Mode mode : {Mode::kArgMax, Mode::kArgMin, Mode::kMax, Mode::kMin}) {
      for (long n : {35L, 4097L}) {
        std::vector<double> x = RoundTrip(RandomValues(3 * n, -50, 50, seed++), kFloat);
        x[n / 2] = NAN;                     // row 0: one NaN in the middle
        x[n + 3] = x[n + n - 20] = NAN;     // row 1: two, one in the leftover
        RunArgCase({mode, {3, n}, -1}, x);  // row 2: none
      }
    }
  }
}

TEST(ClArgReduceTest, RejectsBadArguments) {
  Buffer buffer = TestSession().MakeBuffer(kMemReadWrite, 4096);
  const TensorOption input{Shape({2, 3}), kFloat};
  auto expect = [&](auto make, const std::string& message) {
    try {
      make();
      ADD_FAILURE() << "no exception for " << message;
    } catch (const std::exception& e) {
      EXPECT_NE(std::string(e.what()).find(message), std::string::npos) << e.what();
    }
  };
  expect(
      [&] {
        return ArgMax::Create(TestQueue(), ArgMaxOption{2, false}, input, buffer,
                              TensorOption{Shape({2}), kInt64}, buffer);
      },
      "ArgMax: axis 2 is out of range");
  expect(
      [&] {
        return ArgMin::Create(TestQueue(), ArgMinOption{1, false}, input, buffer,
                              TensorOption{Shape({2}), kFloat}, buffer);
      },
      "ArgMin: indices must be DataType::kInt64 or DataType::kInt32");
  expect(
      [&] {
        return ArgMax::Create(TestQueue(), ArgMaxOption{1, true}, input, buffer,
                              TensorOption{Shape({2}), kInt64}, buffer);
      },
      "ArgMax: indices has shape [2] but reducing [2, 3] along dim 1 gives [2, 1]");
  expect(
      [&] {
        ReduceWithIndicesOption option;
        option.op_type = ReduceType::kSum;
        return ReduceWithIndices::Create(TestQueue(), option, input, buffer,
                                         TensorOption{Shape({2}), kFloat}, buffer,
                                         TensorOption{Shape({2}), kInt64}, buffer);
      },
      "ReduceWithIndices: op_type 2 is not supported");
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
