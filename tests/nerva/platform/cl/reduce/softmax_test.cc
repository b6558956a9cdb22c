// Softmax, LogSoftmax and their backward kernels on the OpenCL device
// against double-precision host references: rows around the online-form
// threshold, leftover lengths, other axes and half storage.

#include <cmath>
#include <stdexcept>
#include <string>

#include "nerva/platform/cl/reduce/reduce_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

enum class Op { kSoftmax, kLogSoftmax, kSoftmaxBackward, kLogSoftmaxBackward };

// Softmax-family results along `dim` of x (and, for the gradients, the
// forward output y and the output gradient g = x).
std::vector<double> Reference(Op op, const std::vector<double>& x, const std::vector<double>& y,
                              const std::vector<long>& sizes, int dim) {
  long outer = 1, inner = 1;
  for (int i = 0; i < dim; ++i) outer *= sizes[i];
  for (size_t i = dim + 1; i < sizes.size(); ++i) inner *= sizes[i];
  const long n = sizes[dim];
  std::vector<double> out(x.size());
  for (long o = 0; o < outer; ++o) {
    for (long i = 0; i < inner; ++i) {
      auto at = [&](long k) { return o * n * inner + k * inner + i; };
      double m = -INFINITY, s = 0, gy = 0, g = 0;
      for (long k = 0; k < n; ++k) m = std::max(m, x[at(k)]);
      for (long k = 0; k < n; ++k) s += std::exp(x[at(k)] - m);
      if (op == Op::kSoftmaxBackward || op == Op::kLogSoftmaxBackward) {
        for (long k = 0; k < n; ++k) gy += x[at(k)] * y[at(k)];
        for (long k = 0; k < n; ++k) g += x[at(k)];
      }
      for (long k = 0; k < n; ++k) {
        const double v = x[at(k)];
        switch (op) {
          case Op::kSoftmax:
            out[at(k)] = std::exp(v - m) / s;
            break;
          case Op::kLogSoftmax:
            out[at(k)] = v - m - std::log(s);
            break;
          case Op::kSoftmaxBackward:
            out[at(k)] = y[at(k)] * (v - gy);
            break;
          case Op::kLogSoftmaxBackward:
            out[at(k)] = v - std::exp(y[at(k)]) * g;
            break;
        }
      }
    }
  }
  return out;
}

struct SoftmaxCase {
  Op op;
  std::vector<long> sizes;
  int dim;
  DataType type = kFloat;
};

void RunSoftmaxCase(const SoftmaxCase& c, unsigned seed) {
  SCOPED_TRACE(StrCat("op ", static_cast<int>(c.op), " sizes ", Shape(c.sizes), " dim ", c.dim,
                      " type ", c.type));
  const size_t n = static_cast<size_t>(Count(c.sizes));
  const int dim = c.dim < 0 ? c.dim + static_cast<int>(c.sizes.size()) : c.dim;
  const std::vector<double> x = RoundTrip(RandomValues(n, -8, 8, seed), c.type);
  // The forward output for the gradients: a softmax (or log-softmax) of other data.
  const bool log_form = c.op == Op::kLogSoftmaxBackward;
  std::vector<double> y = RoundTrip(Reference(log_form ? Op::kLogSoftmax : Op::kSoftmax,
                                              RandomValues(n, -3, 3, seed + 1), {}, c.sizes, dim),
                                    c.type);
  Tensor input = UploadAs(x, c.sizes, c.type);
  Tensor forward = UploadAs(y, c.sizes, c.type);
  Tensor output = MakeOutput(c.sizes, c.type);
  Kernel kernel;
  switch (c.op) {
    case Op::kSoftmax:
      kernel = Softmax::Create(TestQueue(), SoftmaxOption{c.dim}, input.option(), input.storage(),
                               output.option(), output.storage());
      break;
    case Op::kLogSoftmax:
      kernel = LogSoftmax::Create(TestQueue(), LogSoftmaxOption{c.dim}, input.option(),
                                  input.storage(), output.option(), output.storage());
      break;
    case Op::kSoftmaxBackward:
      kernel = SoftmaxBackward::Create(TestQueue(), SoftmaxBackwardOption{c.dim}, input.option(),
                                       input.storage(), forward.option(), forward.storage(),
                                       output.option(), output.storage());
      break;
    case Op::kLogSoftmaxBackward:
      kernel = LogSoftmaxBackward::Create(TestQueue(), LogSoftmaxBackwardOption{c.dim},
                                          input.option(), input.storage(), forward.option(),
                                          forward.storage(), output.option(), output.storage());
      break;
  }
  TestQueue().Enqueue(kernel);
  const std::vector<double> got = DownloadAs(output);
  const std::vector<double> want = Reference(c.op, x, y, c.sizes, dim);
  const double rel = c.type == kHalf ? 2e-3 : 2e-5;
  const double abs = c.type == kHalf ? 2e-3 : 1e-6;
  for (size_t i = 0; i < n; ++i) {
    ASSERT_NEAR(got[i], want[i],
                abs + rel * std::fabs(want[i]) + (c.op == Op::kLogSoftmaxBackward ? rel * 8 : 0))
        << "at " << i;
  }
}

TEST(ClSoftmaxTest, InnermostRowsAroundTheOnlineForm) {
  // Group forms: 4096 and 8192 take the online form, 4095 and 4097 the
  // three-pass one. Row form (CPU devices): lengths around its 16-wide vectors.
  unsigned seed = 600;
  for (bool gpu : {false, true}) {
    SCOPED_TRACE(gpu ? "group forms" : "row form");
    const GpuPathsForTesting paths(gpu);
    for (long n : {1L, 3L, 7L, 16L, 17L, 65L, 4095L, 4096L, 4097L, 8192L}) {
      RunSoftmaxCase({Op::kSoftmax, {3, n}, -1}, seed++);
    }
    RunSoftmaxCase({Op::kLogSoftmax, {3, 4097}, 1}, seed++);
    RunSoftmaxCase({Op::kLogSoftmax, {2, 2, 4096}, -1}, seed++);
    RunSoftmaxCase({Op::kLogSoftmax, {4, 5}, -1}, seed++);
    RunSoftmaxCase({Op::kSoftmax, {5, 67}, -1, kHalf}, seed++);
  }
}

TEST(ClSoftmaxTest, SpecialRowsAsInTorch) {
  // Rows of 40 (two vectors and a leftover on the row form): a NaN, a +inf or
  // only -inf make the whole row NaN; a -inf among finite values gives 0.
  const long n = 40;
  std::vector<double> x = RandomValues(5 * n, -4, 4, 650);
  x[0 * n + 21] = NAN;
  x[1 * n + 2] = INFINITY;
  for (long k = 0; k < n; ++k) x[2 * n + k] = -INFINITY;
  x[3 * n + 30] = -INFINITY;
  for (bool gpu : {false, true}) {
    SCOPED_TRACE(gpu ? "group forms" : "row form");
    const GpuPathsForTesting paths(gpu);
    for (bool log_form : {false, true}) {
      Tensor input = UploadAs(x, {5, n}, kFloat), output = MakeOutput({5, n}, kFloat);
      TestQueue().Enqueue(
          log_form ? LogSoftmax::Create(TestQueue(), LogSoftmaxOption{-1}, input.option(),
                                        input.storage(), output.option(), output.storage())
                   : Softmax::Create(TestQueue(), SoftmaxOption{-1}, input.option(),
                                     input.storage(), output.option(), output.storage()));
      const std::vector<double> got = DownloadAs(output);
      for (long k = 0; k < 3 * n; ++k) ASSERT_TRUE(std::isnan(got[k])) << log_form << " at " << k;
      std::vector<double> row3(x.begin() + 3 * n, x.begin() + 4 * n);
      row3[30] = -1e30;  // the reference's stand-in for -inf
      const std::vector<double> want =
          Reference(log_form ? Op::kLogSoftmax : Op::kSoftmax, row3, {}, {1, n}, 1);
      for (long k = 0; k < n; ++k) {
        if (k == 30) {
          EXPECT_EQ(got[3 * n + k], log_form ? -INFINITY : 0.0);
          continue;
        }
        EXPECT_NEAR(got[3 * n + k], want[k], 1e-6 + 2e-5 * std::fabs(want[k])) << k;
        EXPECT_NEAR(got[4 * n + k],
                    Reference(log_form ? Op::kLogSoftmax : Op::kSoftmax,
                              std::vector<double>(x.begin() + 4 * n, x.end()), {}, {1, n}, 1)[k],
                    1e-6 + 2e-5 * std::fabs(got[4 * n + k]))
            << k;
      }
    }
  }
}

TEST(ClSoftmaxTest, OtherAxesAndHalf) {
  unsigned seed = 700;
  RunSoftmaxCase({Op::kSoftmax, {3, 7, 5}, 1}, seed++);
  RunSoftmaxCase({Op::kSoftmax, {9, 6}, 0}, seed++);
  RunSoftmaxCase({Op::kLogSoftmax, {3, 7, 5}, 1}, seed++);
  RunSoftmaxCase({Op::kSoftmax, {2, 9, 3}, 1, kHalf}, seed++);
}

TEST(ClSoftmaxTest, Gradients) {
  unsigned seed = 800;
  for (Op op : {Op::kSoftmaxBackward, Op::kLogSoftmaxBackward}) {
    RunSoftmaxCase({op, {4, 133}, -1}, seed++);
    RunSoftmaxCase({op, {3, 1}, 1}, seed++);
    RunSoftmaxCase({op, {3, 6, 5}, 1}, seed++);
    RunSoftmaxCase({op, {6, 4}, 0}, seed++);
  }
  RunSoftmaxCase({Op::kSoftmaxBackward, {2, 70}, 1, kHalf}, seed++);
}

TEST(ClSoftmaxTest, RowLengthPicksTheForm) {
  auto unit = [](long n) {
    Tensor x = TestSession().MakeTensor({2, n}, kFloat);
    return UnitNames(Softmax::Create(TestQueue(), SoftmaxOption{-1}, x.option(), x.storage(),
                                     x.option(), x.storage()));
  };
  EXPECT_EQ(unit(4096), std::vector<std::string>{"softmax_x_row"});
  const GpuPathsForTesting paths;
  EXPECT_EQ(unit(4096), std::vector<std::string>{"softmax_x_online"});
  EXPECT_EQ(unit(4097), std::vector<std::string>{"softmax_x"});
  EXPECT_EQ(unit(4095), std::vector<std::string>{"softmax_x"});
}

TEST(ClSoftmaxTest, RejectsBadArguments) {
  Buffer buffer = TestSession().MakeBuffer(kMemReadWrite, 4096);
  const TensorOption x{Shape({2, 3}), kFloat};
  auto expect = [&](auto make, const std::string& message) {
    try {
      make();
      ADD_FAILURE() << "no exception for " << message;
    } catch (const std::exception& e) {
      EXPECT_NE(std::string(e.what()).find(message), std::string::npos) << e.what();
    }
  };
  expect([&] { return Softmax::Create(TestQueue(), SoftmaxOption{2}, x, buffer, x, buffer); },
         "Softmax: axis 2 is out of range");
  expect(
      [&] {
        return LogSoftmax::Create(TestQueue(), LogSoftmaxOption{1}, x, buffer,
                                  TensorOption{Shape({3, 2}), kFloat}, buffer);
      },
      "LogSoftmax: output shape [3, 2] does not match input shape [2, 3]");
  expect(
      [&] {
        return Softmax::Create(TestQueue(), SoftmaxOption{1}, TensorOption{Shape({2, 3}), kInt32},
                               buffer, x, buffer);
      },
      "Softmax: unsupported input type DataType::kInt32");
  expect(
      [&] {
        return SoftmaxBackward::Create(TestQueue(), SoftmaxBackwardOption{0}, x, buffer,
                                       TensorOption{Shape({2, 3}), kHalf}, buffer, x, buffer);
      },
      "SoftmaxBackward: output type DataType::kHalf differs");
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
