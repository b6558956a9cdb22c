// Reduce on the OpenCL device against double-precision host references, over
// every kind and every variant path (two-pass, row, column, middle axis, xz).

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>

#include "nerva/platform/cl/kernel/reduce/reduce.h"
#include "nerva/platform/cl/reduce/reduce_test_util.h"

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
  return StrCat("kind ", static_cast<int>(c.kind), " sizes ", Shape(c.sizes), " axes ",
                Shape(std::vector<long>(c.axes.begin(), c.axes.end())), " in ", c.in, " out ",
                c.out);
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
  // Full two-pass (above 4096), row, column, middle axis, [0,2] and [0,2,3].
  const std::vector<std::pair<std::vector<long>, std::vector<int>>> paths = {
      {{3, 1701}, {}},  {{7, 65}, {-1}},     {{63, 5}, {0}},
      {{3, 7, 5}, {1}}, {{3, 4, 5}, {0, 2}}, {{2, 3, 4, 5}, {0, 2, 3}},
  };
  unsigned seed = 1;
  for (ReduceType kind : kAllKinds) {
    for (const auto& [sizes, axes] : paths) {
      RunCase({kind, sizes, axes, kFloat, OutputFor(kind, kFloat)}, seed++);
    }
  }
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
