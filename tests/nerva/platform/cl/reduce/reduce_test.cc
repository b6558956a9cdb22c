// Reduce on the OpenCL device against double-precision host references, over
// every kind and every variant path (two-pass, row, column, middle axis, xz).

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>

#include "nerva/platform/cl/kernel/reduce/reduce.h"
#include "nerva/platform/cl/reduce/reduce_test_util.h"
#include "nerva/platform/cl/util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

// The fold of one group of values by `kind`, as torch defines it.
double Fold(const std::vector<double>& v, ReduceType kind, double correction) {
  const double n = static_cast<double>(v.size());
  double acc = 0;
  switch (kind) {
    case ReduceType::kMax:
    case ReduceType::kMin: {
      acc = v[0];
      for (double x : v) {
        if (std::isnan(x) || std::isnan(acc)) {
          acc = NAN;
        } else {
          acc = kind == ReduceType::kMax ? std::max(acc, x) : std::min(acc, x);
        }
      }
      return acc;
    }
    case ReduceType::kSum:
    case ReduceType::kMean:
      for (double x : v) acc += x;
      return kind == ReduceType::kMean ? acc / n : acc;
    case ReduceType::kVar: {
      double mean = 0;
      for (double x : v) mean += x / n;
      for (double x : v) acc += (x - mean) * (x - mean);
      return v.size() == 1 ? 0.0 : acc / (n - correction);
    }
    case ReduceType::kProd:
      acc = 1;
      for (double x : v) acc *= x;
      return acc;
    case ReduceType::kAll:
      return std::all_of(v.begin(), v.end(), [](double x) { return x != 0; });
    case ReduceType::kAny:
      return std::any_of(v.begin(), v.end(), [](double x) { return x != 0; });
    case ReduceType::kCountNonzero:
      return static_cast<double>(
          std::count_if(v.begin(), v.end(), [](double x) { return x != 0; }));
  }
  return NAN;
}

// Groups the elements of x by their kept indices and folds each group.
std::vector<double> ReferenceReduce(const std::vector<double>& x, const std::vector<long>& sizes,
                                    std::vector<int> axes, ReduceType kind, double correction) {
  const int rank = static_cast<int>(sizes.size());
  if (axes.empty()) {
    for (int i = 0; i < rank; ++i) axes.push_back(i);
  }
  for (auto& a : axes) a = a < 0 ? a + rank : a;
  std::vector<long> kept_sizes;
  for (int i = 0; i < rank; ++i) {
    if (std::find(axes.begin(), axes.end(), i) == axes.end()) kept_sizes.push_back(sizes[i]);
  }
  std::vector<std::vector<double>> groups(static_cast<size_t>(Count(kept_sizes)));
  for (long flat = 0; flat < static_cast<long>(x.size()); ++flat) {
    const std::vector<long> index = Unflatten(flat, sizes);
    std::vector<long> kept;
    for (int i = 0; i < rank; ++i) {
      if (std::find(axes.begin(), axes.end(), i) == axes.end()) kept.push_back(index[i]);
    }
    groups[static_cast<size_t>(Flatten(kept, kept_sizes))].push_back(x[flat]);
  }
  std::vector<double> out;
  for (const auto& group : groups) out.push_back(Fold(group, kind, correction));
  return out;
}

struct ReduceCase {
  ReduceType kind;
  std::vector<long> sizes;
  std::vector<int> axes;
  DataType in = kFloat;
  DataType out = kFloat;
  bool keepdim = false;
};

std::string Describe(const ReduceCase& c) {
  return StrCat("kind ", static_cast<int>(c.kind), " sizes ", c.sizes, " axes ", c.axes, " in ",
                c.in, " out ", c.out);
}

// Inputs that keep each kind well conditioned: products near 1, logical
// inputs with zeros, integers for integer types.
std::vector<double> InputFor(const ReduceCase& c, unsigned seed) {
  const size_t n = static_cast<size_t>(Count(c.sizes));
  const bool integral = c.in != kFloat && c.in != kHalf;
  std::vector<double> x;
  if (c.kind == ReduceType::kProd) {
    x = integral ? RandomValues(n, 1, 2.5, seed, true) : RandomValues(n, 0.97, 1.03, seed);
  } else if (c.in == kBool || c.kind == ReduceType::kAll || c.kind == ReduceType::kAny ||
             c.kind == ReduceType::kCountNonzero) {
    x = RandomValues(n, 0, 3, seed, true);
    for (auto& v : x) v = v >= 1 ? v : 0;
    // All-true groups for `all` in half of the cases.
    if (c.kind == ReduceType::kAll && seed % 2) std::fill(x.begin(), x.end(), 1.0);
  } else if (c.in == kUInt8 || c.in == kUInt16 || c.in == kUInt32 || c.in == kUInt64) {
    x = RandomValues(n, 0, 200, seed, true);
  } else {
    x = RandomValues(n, -100, 100, seed, integral);
  }
  return RoundTrip(x, c.in);
}

void RunCase(const ReduceCase& c, unsigned seed, float correction = 1.0f) {
  SCOPED_TRACE(Describe(c));
  const std::vector<double> x = InputFor(c, seed);
  ReduceOption option;
  option.op_type = c.kind;
  option.axes = c.axes;
  option.keepdim = c.keepdim;
  option.correction = correction;
  std::vector<int> axes = c.axes;
  if (axes.empty()) {
    for (size_t i = 0; i < c.sizes.size(); ++i) axes.push_back(static_cast<int>(i));
  }
  for (auto& a : axes) a = a < 0 ? a + static_cast<int>(c.sizes.size()) : a;
  std::vector<long> out_sizes;
  for (size_t i = 0; i < c.sizes.size(); ++i) {
    const bool reduced = std::find(axes.begin(), axes.end(), static_cast<int>(i)) != axes.end();
    if (!reduced || c.keepdim) out_sizes.push_back(reduced ? 1 : c.sizes[i]);
  }
  if (out_sizes.empty()) out_sizes.push_back(1);

  Tensor input = UploadAs(x, c.sizes, c.in);
  Tensor output = MakeOutput(out_sizes, c.out);
  Kernel kernel = Reduce::Create(TestQueue(), option, input.option(), input.storage(),
                                 output.option(), output.storage());
  TestQueue().Enqueue(kernel);
  const std::vector<double> got = DownloadAs(output);
  const std::vector<double> want = ReferenceReduce(x, c.sizes, c.axes, c.kind, correction);
  ASSERT_EQ(got.size(), want.size());
  double scale = 0;
  for (double v : x) scale = std::max(scale, std::fabs(v));
  const long group = Count(c.sizes) / static_cast<long>(want.size());
  for (size_t i = 0; i < want.size(); ++i) {
    double tol = 0;
    switch (c.kind) {
      case ReduceType::kSum:
        tol = 2e-6 * scale * group + 1e-4;
        break;
      case ReduceType::kMean:
        tol = 2e-6 * scale + 1e-5;
        break;
      case ReduceType::kVar:
        tol = 1e-5 * scale * scale + 1e-5;
        break;
      case ReduceType::kProd:
        tol = 1e-5 * group * std::fabs(want[i]) + 1e-6;
        break;
      default:
        break;
    }
    if (c.out == kHalf) tol += std::fabs(want[i]) * 1e-3;
    if (c.out != kFloat && c.out != kHalf) {
      EXPECT_EQ(got[i], c.kind == ReduceType::kMean || c.kind == ReduceType::kVar
                            ? std::trunc(static_cast<float>(want[i]))
                            : want[i])
          << "at " << i;
    } else {
      EXPECT_NEAR(got[i], want[i], tol) << "at " << i;
    }
  }
}

const ReduceType kAllKinds[] = {ReduceType::kMax,  ReduceType::kMin, ReduceType::kSum,
                                ReduceType::kMean, ReduceType::kVar, ReduceType::kProd,
                                ReduceType::kAll,  ReduceType::kAny, ReduceType::kCountNonzero};

// The output type a caller would give each kind.
DataType OutputFor(ReduceType kind, DataType in) {
  switch (kind) {
    case ReduceType::kAll:
    case ReduceType::kAny:
      return kBool;
    case ReduceType::kCountNonzero:
      return kInt64;
    default:
      return in;
  }
}

TEST(ClReduceTest, EveryKindOnEveryVariantPath) {
  // Full two-pass (above 4096), row, column, middle axis, [0,2] and [0,2,3];
  // every run leaves one leftover element, so the paths share builds.
  const std::vector<std::pair<std::vector<long>, std::vector<int>>> paths = {
      {{3, 1699}, {}},  {{7, 65}, {-1}},     {{63, 5}, {0}},
      {{3, 7, 5}, {1}}, {{3, 4, 5}, {0, 2}}, {{2, 3, 1, 5}, {0, 2, 3}},
  };
  unsigned seed = 1;
  for (ReduceType kind : kAllKinds) {
    for (const auto& [sizes, axes] : paths) {
      RunCase({kind, sizes, axes, kFloat, OutputFor(kind, kFloat)}, seed++);
    }
  }
}

TEST(ClReduceTest, FullSumOverLeftoverLengths) {
  // 4096 is the last single-group length, 4097 the first two-pass one.
  unsigned seed = 100;
  for (long n : {1L, 2L, 3L, 5L, 7L, 63L, 64L, 65L, 4096L, 4097L, 100003L}) {
    RunCase({ReduceType::kSum, {n}, {0}}, seed++);
  }
  RunCase({ReduceType::kMax, {100003}, {}}, seed++);
  RunCase({ReduceType::kMean, {1, 4097}, {0, 1}, kFloat, kFloat, true}, seed++);
}

TEST(ClReduceTest, TypesAndKeepdim) {
  unsigned seed = 200;
  // Half in and out; integer max stays integral; mean of int32 into float.
  RunCase({ReduceType::kSum, {5, 67}, {1}, kHalf, kHalf}, seed++);
  RunCase({ReduceType::kMax, {9, 5}, {0}, kHalf, kFloat, true}, seed++);
  RunCase({ReduceType::kMax, {4, 6, 7}, {1}, kInt32, kInt32}, seed++);
  RunCase({ReduceType::kMin, {5000}, {0}, kInt64, kInt64}, seed++);
  RunCase({ReduceType::kMin, {3, 33}, {1}, kUInt8, kUInt8, true}, seed++);
  RunCase({ReduceType::kMean, {6, 13}, {-1}, kInt32, kFloat}, seed++);
  RunCase({ReduceType::kProd, {4, 5}, {1}, kInt16, kInt64}, seed++);
  // bool for the logical kinds and the count.
  RunCase({ReduceType::kAll, {3, 9}, {1}, kBool, kBool, true}, seed++);
  RunCase({ReduceType::kAny, {9, 3}, {0}, kBool, kBool}, seed++);
  RunCase({ReduceType::kCountNonzero, {2, 3, 5}, {1, 2}, kBool, kInt64}, seed++);
  RunCase({ReduceType::kCountNonzero, {4, 5, 6, 2}, {0, 2, 3}, kInt8, kInt32, true}, seed++);
}

TEST(ClReduceTest, HighRanksFoldToTheirViews) {
  // Rank 8: a middle run of three axes, and a row of the last four.
  RunCase({ReduceType::kSum, {2, 1, 3, 1, 2, 1, 1, 5}, {2, 3, 4}}, 250);
  RunCase({ReduceType::kMax, {2, 1, 3, 1, 1, 13, 1, 5}, {4, 5, 6, 7}, kFloat, kFloat, true}, 251);
}

TEST(ClReduceTest, EmptyOutputRunsNothing) {
  Buffer buffer = TestSession().MakeBuffer(kMemReadWrite, 64);
  ReduceOption option;
  option.axes = {1};
  Kernel kernel = Reduce::Create(TestQueue(), option, TensorOption{Shape({0, 3}), kFloat}, buffer,
                                 TensorOption{Shape({0}), kFloat}, buffer);
  EXPECT_TRUE(UnitNames(kernel).empty());
  TestQueue().Enqueue(kernel);
  TestQueue().Wait();
}

TEST(ClReduceTest, VarianceCorrectionAndSingleElements) {
  // A full variance never takes the two-pass path; N = 1 gives 0, never 0/0.
  RunCase({ReduceType::kVar, {5000}, {0}}, 300, 1.0f);
  RunCase({ReduceType::kVar, {6, 9}, {1}}, 301, 0.0f);
  RunCase({ReduceType::kVar, {4, 1}, {1}}, 302, 1.0f);
  RunCase({ReduceType::kVar, {1}, {0}}, 303, 1.0f);
}

TEST(ClReduceTest, MaxAndMinPropagateNaN) {
  std::vector<double> x = RoundTrip(RandomValues(2 * 69, -5, 5, 400), kFloat);
  x[3] = NAN;  // row 0 only
  Tensor input = UploadAs(x, {2, 69}, kFloat);
  for (ReduceType kind : {ReduceType::kMax, ReduceType::kMin}) {
    Tensor output = MakeOutput({2}, kFloat);
    ReduceOption option;
    option.op_type = kind;
    option.axes = {1};
    TestQueue().Enqueue(Reduce::Create(TestQueue(), option, input.option(), input.storage(),
                                       output.option(), output.storage()));
    const std::vector<double> got = DownloadAs(output);
    EXPECT_TRUE(std::isnan(got[0]));
    EXPECT_EQ(got[1], ReferenceReduce({x.begin() + 69, x.end()}, {69}, {0}, kind, 1)[0]);
  }
}

// The exception type and message of creating a Reduce kernel.
template <typename E>
void ExpectReduceError(const ReduceOption& option, const std::vector<long>& in_sizes,
                       DataType in_type, const std::vector<long>& out_sizes, DataType out_type,
                       const std::string& message) {
  // Descriptors only: nothing may reach the device.
  Buffer buffer = TestSession().MakeBuffer(kMemReadWrite, 4096);
  try {
    Reduce::Create(TestQueue(), option, TensorOption{Shape(in_sizes), in_type}, buffer,
                   TensorOption{Shape(out_sizes), out_type}, buffer);
    ADD_FAILURE() << "no exception for " << message;
  } catch (const E& e) {
    EXPECT_NE(std::string(e.what()).find(message), std::string::npos) << e.what();
  }
}

TEST(ClReduceTest, RejectsBadArguments) {
  ReduceOption option;
  option.axes = {0, 2};
  ExpectReduceError<std::invalid_argument>(
      option, {2, 3, 4, 5}, kFloat, {3, 5}, kFloat,
      "Reduce only support consecutive axes or axes is [0,2] or [0,2,3]");
  option.axes = {0, 3};
  ExpectReduceError<std::invalid_argument>(
      option, {2, 3, 4, 5}, kFloat, {3, 4}, kFloat,
      "Reduce only support consecutive axes or axes is [0,2] or [0,2,3]");
  option.axes = {2};
  ExpectReduceError<std::out_of_range>(option, {2, 3}, kFloat, {2}, kFloat, "Reduce: axis 2");
  option.axes = {1};
  ExpectReduceError<std::runtime_error>(option, {2, 3}, kFloat, {3}, kFloat,
                                        "Reduce: output has shape [3]");
  ExpectReduceError<std::invalid_argument>(option, {2, 3}, kDouble, {2}, kFloat,
                                           "Reduce: unsupported input type DataType::kDouble");
  option.op_type = static_cast<ReduceType>(9);
  ExpectReduceError<std::invalid_argument>(option, {2, 3}, kFloat, {2}, kFloat,
                                           "Unsupport reduce operator type: 9");
  option.op_type = ReduceType::kMax;
  option.axes = {0};
  ExpectReduceError<std::runtime_error>(option, {0, 3}, kFloat, {3}, kFloat, "over zero elements");
}

TEST(ClReduceTest, AxesPickTheVariant) {
  auto names = [](std::vector<long> sizes, std::vector<int> axes, ReduceType kind,
                  std::vector<long> out_sizes) {
    Tensor input = TestSession().MakeTensor(sizes, kFloat);
    Tensor output = TestSession().MakeTensor(out_sizes, kFloat);
    ReduceOption option;
    option.op_type = kind;
    option.axes = axes;
    return UnitNames(Reduce::Create(TestQueue(), option, input.option(), input.storage(),
                                    output.option(), output.storage()));
  };
  using Names = std::vector<std::string>;
  EXPECT_EQ(names({4096}, {}, ReduceType::kSum, {1}), Names{"reduce_on_row"});
  EXPECT_EQ(names({4097}, {}, ReduceType::kSum, {1}), (Names{"global_reduce", "reduce_to_scalar"}));
  EXPECT_EQ(names({4097}, {}, ReduceType::kVar, {1}), Names{"reduce_on_row"});
  EXPECT_EQ(names({4, 5}, {0}, ReduceType::kMax, {5}), Names{"reduce_on_col"});
  EXPECT_EQ(names({4, 5, 5}, {1}, ReduceType::kMin, {4, 5}), Names{"reduce_on_y"});
  EXPECT_EQ(names({4, 5, 13}, {1, 2}, ReduceType::kSum, {4}), Names{"reduce_on_row"});
  EXPECT_EQ(names({4, 5, 1, 5}, {0, 2, 3}, ReduceType::kSum, {5}), Names{"reduce_on_xz"});
}

TEST(ClReduceTest, ColumnFoldsSplitTheReducedRows) {
  // Every kind over a column and middle axes with enough rows to split, on
  // both device classes: column items over row chunks (GPU) and items that
  // stream whole row chunks four rows at a time (CPU). Runs of 5 leave a
  // leftover lane, 17 and 33 a scalar tail after 16-wide vectors.
  const std::vector<std::pair<std::vector<long>, std::vector<int>>> paths = {
      {{301, 5}, {0}}, {{2, 97, 17}, {1}}, {{70, 3, 5}, {0, 1}}};
  unsigned seed = 500;
  for (bool gpu : {false, true}) {
    SCOPED_TRACE(gpu ? "gpu" : "cpu");
    const GpuPathsForTesting classes(gpu);
    for (ReduceType kind : kAllKinds) {
      for (const auto& [sizes, axes] : paths) {
        RunCase({kind, sizes, axes, kFloat, OutputFor(kind, kFloat)}, seed++);
      }
    }
    RunCase({ReduceType::kSum, {1000, 67}, {0}, kHalf, kHalf}, seed++);
    RunCase({ReduceType::kMax, {3, 200, 9}, {1}, kInt32, kInt32, true}, seed++);
    RunCase({ReduceType::kSum, {3, 200, 33}, {1}}, seed++);
    RunCase({ReduceType::kMin, {129, 4}, {0}, kUInt8, kUInt8}, seed++);
    RunCase({ReduceType::kVar, {65, 2, 33}, {0, 1}}, seed++, 0.0f);
    // Row counts around the chunking thresholds, one row past whole groups of four.
    for (long rows : {7L, 8L, 9L, 40L, 4097L}) RunCase({ReduceType::kSum, {rows, 16}, {0}}, seed++);
  }
}

TEST(ClReduceTest, ColumnFoldsUseTwoPasses) {
  Tensor input = TestSession().MakeTensor({512, 8}, kFloat);
  Tensor output = TestSession().MakeTensor({8}, kFloat);
  ReduceOption option;
  option.axes = {0};
  auto units = [&] {
    return UnitNames(Reduce::Create(TestQueue(), option, input.option(), input.storage(),
                                    output.option(), output.storage()));
  };
  EXPECT_EQ(units(), (std::vector<std::string>{"reduce_rows_partial", "reduce_split_merge"}));
  const GpuPathsForTesting gpu;
  EXPECT_EQ(units(), (std::vector<std::string>{"reduce_split_partial", "reduce_split_merge"}));
}

TEST(ClReduceTest, AdjustVecSizeRejectsWideRequests) {
  EXPECT_THROW(AdjustVecSize(17, 100), std::invalid_argument);
  EXPECT_EQ(AdjustVecSize(4, 3), 3);
  EXPECT_EQ(AdjustVecSize(4, 2), 2);
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
