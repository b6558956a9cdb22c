#pragma once

// Helpers of the pooling tests: double-precision reference loops over planes
// of (depth, height, width) volumes (2-D cases use depth 1) and tolerance checks.

#include <array>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "nerva/nerva.h"
#include "nerva/platform/cl/reduce/reduce_test_util.h"
#include "nerva/test_util.h"

namespace nerva {
namespace cl {
namespace testing {
// Each family's helpers get their own link names: every family links into
// one test binary, and same-named helpers must not replace each other.
inline namespace pool_util {

using Dims = std::array<long, 3>;  // depth, height, width

// A pooling case: full tensor sizes, window per spatial dimension.
struct PoolCase {
  std::vector<long> sizes;
  std::vector<long> kernel = {}, stride = {}, padding = {}, dilation = {};
  bool ceil_mode = false;
  DataType type = kFloat;
  bool count_include_pad = true;
  long divisor = 0;
};

// The last `spatial` entries of `v` as (depth, height, width), `fill` before.
inline Dims ToDims(const std::vector<long>& v, int spatial, long fill) {
  Dims d{fill, fill, fill};
  for (int i = 0; i < spatial; ++i) {
    d[3 - spatial + i] = v.size() == 1 ? v[0] : v[v.size() - spatial + i];
  }
  return d;
}

// Planes of a tensor with `spatial` trailing dimensions.
inline long Planes(const std::vector<long>& sizes, int spatial) {
  long n = 1;
  for (size_t i = 0; i + spatial < sizes.size(); ++i) n *= sizes[i];
  return n;
}

// Window count along one dimension, counted by trying every start.
inline long RefOutSize(long in, long k, long s, long p, long d, bool ceil_mode) {
  const long span = d * (k - 1) + 1;
  long out = 0;
  // Floor mode: windows fully inside the padded input.
  while ((out * s) + span <= in + 2 * p) ++out;
  // Ceil mode: one more, partial window when the last full one stops short of
  // the padded end and the new one still starts inside the input or the left padding.
  const bool partial = out > 0 && (out - 1) * s + span < in + 2 * p;
  if (ceil_mode && partial && out * s < in + p) ++out;
  return out;
}

struct Window {
  Dims in, out, k, s, p, d;
};

inline Window MakeWindow(const PoolCase& c, int spatial, bool dilated) {
  Window w;
  w.in = ToDims(c.sizes, spatial, 1);
  w.k = ToDims(c.kernel, spatial, 1);
  w.s = ToDims(c.stride.empty() ? c.kernel : c.stride, spatial, 1);
  w.p = ToDims(c.padding, spatial, 0);
  w.d = dilated ? ToDims(c.dilation, spatial, 1) : Dims{1, 1, 1};
  for (int i = 0; i < 3; ++i) {
    w.out[i] = RefOutSize(w.in[i], w.k[i], w.s[i], w.p[i], w.d[i], c.ceil_mode);
  }
  return w;
}

inline std::vector<long> OutSizes(const std::vector<long>& sizes, const Dims& out, int spatial) {
  std::vector<long> r = sizes;
  for (int i = 0; i < spatial; ++i) r[sizes.size() - spatial + i] = out[3 - spatial + i];
  return r;
}

inline long Vol(const Dims& d) {
  return d[0] * d[1] * d[2];
}

// Max pooling: values and flat per-plane indices (NaN wins, first max kept).
inline void RefMaxPool(const std::vector<double>& x, long planes, const Window& w,
                       std::vector<double>* out, std::vector<double>* index) {
  for (long n = 0; n < planes; ++n) {
    for (long o = 0; o < Vol(w.out); ++o) {
      const long od = o / (w.out[1] * w.out[2]), oh = o / w.out[2] % w.out[1], ow = o % w.out[2];
      double best = -std::numeric_limits<double>::infinity();
      long best_i = -1;
      for (long a = 0; a < w.k[0]; ++a)
        for (long b = 0; b < w.k[1]; ++b)
          for (long c = 0; c < w.k[2]; ++c) {
            const long id = od * w.s[0] - w.p[0] + a * w.d[0];
            const long ih = oh * w.s[1] - w.p[1] + b * w.d[1];
            const long iw = ow * w.s[2] - w.p[2] + c * w.d[2];
            if (id < 0 || ih < 0 || iw < 0 || id >= w.in[0] || ih >= w.in[1] || iw >= w.in[2])
              continue;
            const long flat = (id * w.in[1] + ih) * w.in[2] + iw;
            const double v = x[n * Vol(w.in) + flat];
            if (best_i < 0 || v > best || std::isnan(v)) {
              if (best_i < 0 || !std::isnan(best)) best = v, best_i = flat;
            }
          }
      out->push_back(best);
      index->push_back(static_cast<double>(best_i));
    }
  }
}

// torch's average window along one dimension: [start, end) clipped, and the
// padded size.
inline long AvgRange(long o, long in, long k, long s, long p, long* start, long* end) {
  long a = o * s - p, b = std::min(a + k, in + p);
  const long padded = b - a;
  *start = std::max(a, 0L), *end = std::min(b, in);
  return padded;
}

inline double AvgDivisor(const PoolCase& c, const Window& w, long od, long oh, long ow, Dims* lo,
                         Dims* hi) {
  const long o[3] = {od, oh, ow};
  long padded = 1, valid = 1;
  for (int i = 0; i < 3; ++i) {
    padded *= AvgRange(o[i], w.in[i], w.k[i], w.s[i], w.p[i], &(*lo)[i], &(*hi)[i]);
    valid *= std::max(0L, (*hi)[i] - (*lo)[i]);
  }
  if (c.divisor) return static_cast<double>(c.divisor);
  return static_cast<double>(c.count_include_pad ? padded : valid);
}

inline std::vector<double> RefAvgPool(const std::vector<double>& x, long planes, const Window& w,
                                      const PoolCase& c) {
  std::vector<double> out;
  for (long n = 0; n < planes; ++n) {
    for (long o = 0; o < Vol(w.out); ++o) {
      const long od = o / (w.out[1] * w.out[2]), oh = o / w.out[2] % w.out[1], ow = o % w.out[2];
      Dims lo, hi;
      const double div = AvgDivisor(c, w, od, oh, ow, &lo, &hi);
      double sum = 0;
      for (long a = lo[0]; a < hi[0]; ++a)
        for (long b = lo[1]; b < hi[1]; ++b)
          for (long e = lo[2]; e < hi[2]; ++e)
            sum += x[n * Vol(w.in) + (a * w.in[1] + b) * w.in[2] + e];
      out.push_back(sum / div);
    }
  }
  return out;
}

// Scatter form of the average pooling gradient.
inline std::vector<double> RefAvgPoolGrad(const std::vector<double>& g, long planes,
                                          const Window& w, const PoolCase& c) {
  std::vector<double> gi(planes * Vol(w.in), 0.0);
  for (long n = 0; n < planes; ++n) {
    for (long o = 0; o < Vol(w.out); ++o) {
      const long od = o / (w.out[1] * w.out[2]), oh = o / w.out[2] % w.out[1], ow = o % w.out[2];
      Dims lo, hi;
      const double div = AvgDivisor(c, w, od, oh, ow, &lo, &hi);
      for (long a = lo[0]; a < hi[0]; ++a)
        for (long b = lo[1]; b < hi[1]; ++b)
          for (long e = lo[2]; e < hi[2]; ++e)
            gi[n * Vol(w.in) + (a * w.in[1] + b) * w.in[2] + e] += g[n * Vol(w.out) + o] / div;
    }
  }
  return gi;
}

// Adaptive window [floor(o * in / out), ceil((o + 1) * in / out)).
inline long AdStart(long o, long in, long out) {
  return static_cast<long>(std::floor(static_cast<double>(o) * in / out));
}
inline long AdEnd(long o, long in, long out) {
  return static_cast<long>(std::ceil(static_cast<double>(o + 1) * in / out));
}

inline double Tol(DataType type) {
  return type == kHalf ? 1e-2 : 1e-5;
}

inline void ExpectNear(const std::vector<double>& got, const std::vector<double>& want, double tol,
                       const std::string& what) {
  ASSERT_EQ(got.size(), want.size()) << what;
  for (size_t i = 0; i < want.size(); ++i) {
    if (std::isnan(want[i])) {
      ASSERT_TRUE(std::isnan(got[i])) << what << " at " << i;
      continue;
    }
    ASSERT_NEAR(got[i], want[i], tol * (1 + std::fabs(want[i]))) << what << " at " << i;
  }
}

}  // namespace pool_util
}  // namespace testing
}  // namespace cl
}  // namespace nerva
