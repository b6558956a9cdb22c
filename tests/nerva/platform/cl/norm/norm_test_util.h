#pragma once

// Helpers of the normalisation tests: optional device tensors, tolerance
// checks and the row statistics of a double-precision reference.

#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

#include "nerva/platform/cl/reduce/reduce_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
// Each family's helpers get their own link names: every family links into
// one test binary, and same-named helpers must not replace each other.
inline namespace norm_util {

// A device tensor, or an absent one (empty option, null buffer).
struct MaybeTensor {
  TensorOption option;
  Buffer buffer;
};
inline MaybeTensor Present(const Tensor& t) {
  return {t.option(), t.storage()};
}
inline MaybeTensor Absent() {
  return {TensorOption{Shape(std::vector<long>{}), kFloat}, Buffer()};
}

// Element-wise |got - want| <= abs + rel * |want|.
inline void ExpectClose(const std::vector<double>& got, const std::vector<double>& want, double abs,
                        double rel, const std::string& what) {
  ASSERT_EQ(got.size(), want.size()) << what;
  for (size_t i = 0; i < want.size(); ++i) {
    ASSERT_NEAR(got[i], want[i], abs + rel * std::fabs(want[i])) << what << " at " << i;
  }
}

// Population mean and 1/sqrt(var + eps) of count values spaced `stride`
// apart from `first`, in runs: `runs` runs of `count` starting `run_stride` apart.
struct Stats {
  double mean = 0;
  double rstd = 0;
  double var = 0;
};
inline Stats RunStats(const std::vector<double>& x, long first, long runs, long run_stride,
                      long count, double eps) {
  double s = 0, ss = 0;
  const double n = static_cast<double>(runs * count);
  for (long r = 0; r < runs; ++r) {
    for (long k = 0; k < count; ++k) s += x[first + r * run_stride + k];
  }
  const double mean = s / n;
  for (long r = 0; r < runs; ++r) {
    for (long k = 0; k < count; ++k) {
      const double d = x[first + r * run_stride + k] - mean;
      ss += d * d;
    }
  }
  return {mean, 1.0 / std::sqrt(ss / n + eps), ss / n};
}

// Runs `make` and expects an exception of type E whose message contains `message`.
template <typename E, typename F>
void ExpectThrow(F make, const std::string& message) {
  try {
    make();
    ADD_FAILURE() << "no exception for " << message;
  } catch (const E& e) {
    EXPECT_NE(std::string(e.what()).find(message), std::string::npos) << e.what();
  } catch (const std::exception& e) {
    ADD_FAILURE() << "wrong exception type for " << message << ": " << e.what();
  }
}

}  // namespace norm_util
}  // namespace testing
}  // namespace cl
}  // namespace nerva
