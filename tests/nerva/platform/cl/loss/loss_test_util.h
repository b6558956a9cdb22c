#pragma once

// Helpers of the loss tests: reductions of reference values and result checks.

#include <cmath>
#include <vector>

#include "nerva/platform/cl/reduce/reduce_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
// Each family's helpers get their own link names: every family links into
// one test binary, and same-named helpers must not replace each other.
inline namespace loss_util {

constexpr LossReduction kAllReductions[] = {LossReduction::kNone, LossReduction::kMean,
                                            LossReduction::kSum};

// The reference result of per-item losses: the items, their sum, or their sum over `divisor`.
inline std::vector<double> Reduce(const std::vector<double>& items, LossReduction reduction,
                                  double divisor) {
  if (reduction == LossReduction::kNone) return items;
  double sum = 0;
  for (double v : items) sum += v;
  return {reduction == LossReduction::kMean ? sum / divisor : sum};
}

inline std::vector<long> LossSizes(const std::vector<long>& sizes, LossReduction reduction) {
  return reduction == LossReduction::kNone ? sizes : std::vector<long>{1};
}

inline double Tolerance(DataType type) {
  return type == kHalf ? 4e-3 : 2e-5;
}

inline void ExpectClose(const std::vector<double>& got, const std::vector<double>& want,
                        DataType type) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < want.size(); ++i) {
    if (std::isnan(want[i])) {
      EXPECT_TRUE(std::isnan(got[i])) << "at " << i << ": " << got[i];
      continue;
    }
    if (std::isinf(want[i])) {
      EXPECT_EQ(got[i], want[i]) << "at " << i;
      continue;
    }
    EXPECT_NEAR(got[i], want[i], Tolerance(type) * (1 + std::fabs(want[i]))) << "at " << i;
  }
}

// An optional tensor left out.
inline TensorOption NoTensorOption(DataType type = kFloat) {
  return TensorOption{Shape(), type};
}

}  // namespace loss_util
}  // namespace testing
}  // namespace cl
}  // namespace nerva
