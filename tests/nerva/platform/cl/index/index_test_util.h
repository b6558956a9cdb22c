#pragma once

// Helpers of the gather/scatter/index tests: typed uploads from double values, outputs inside
// guard regions, random data and indices.

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "nerva/platform/cl/cl_test_util.h"
#include "nerva/test_util.h"

namespace nerva {
namespace cl {
namespace testing {
// Each family's helpers get their own link names: every family links into
// one test binary, and same-named helpers must not replace each other.
inline namespace index_util {

inline std::vector<long> Strides(const std::vector<long>& sizes) {
  std::vector<long> s(sizes.size(), 1);
  for (int k = static_cast<int>(sizes.size()) - 2; k >= 0; --k) s[k] = s[k + 1] * sizes[k + 1];
  return s;
}

inline Tensor Put(const std::vector<double>& values, const std::vector<long>& sizes,
                  DataType type) {
  std::vector<uint8_t> bytes = ToBytes(values, type);
  if (Count(sizes) == 0) {
    return Tensor(TensorOption{Shape(sizes), type}, TestSession().MakeBuffer(kMemReadWrite, 8), 0);
  }
  Tensor t = TestSession().MakeTensor(sizes, type);
  if (!values.empty()) {
    TestQueue().CopyHostToDevice(t.storage(), bytes.data(), static_cast<long>(bytes.size()));
  }
  return t;
}

inline std::vector<double> Get(const Tensor& t) {
  std::vector<uint8_t> bytes(Count(t.shape().sizes()) * TypeTraitsHelper::GetSize(t.dtype()));
  if (!bytes.empty()) {
    TestQueue().CopyDeviceToHost(bytes.data(), t.storage(), static_cast<long>(bytes.size()));
  }
  return FromBytes(bytes, t.dtype());
}

inline Tensor PutIndex(const std::vector<long>& values, const std::vector<long>& sizes,
                       DataType type) {
  return Put(std::vector<double>(values.begin(), values.end()), sizes, type);
}

// An output inside a larger buffer whose bytes before and after it hold a pattern.
struct Guarded {
  static constexpr long kGuard = 1024;
  Buffer whole;
  Tensor tensor;
  long bytes = 0;

  Guarded(const std::vector<long>& sizes, DataType type) {
    bytes = Count(sizes) * static_cast<long>(TypeTraitsHelper::GetSize(type));
    whole = TestSession().MakeBuffer(kMemReadWrite, bytes + 2 * kGuard);
    std::vector<uint8_t> pattern(bytes + 2 * kGuard, 0x5A);
    TestQueue().CopyHostToDevice(whole, pattern.data(), static_cast<long>(pattern.size()));
    tensor = Tensor(TensorOption{Shape(sizes), type},
                    bytes ? whole.View(kGuard, bytes, kMemReadWrite) : Buffer(), 0);
  }
  const TensorOption& option() const { return tensor.option(); }
  Buffer& buffer() { return const_cast<Buffer&>(tensor.storage()); }
  std::vector<double> values() const { return Get(tensor); }
  // True when no byte outside the output changed.
  bool GuardsIntact() const {
    std::vector<uint8_t> all(bytes + 2 * kGuard);
    TestQueue().CopyDeviceToHost(all.data(), whole, static_cast<long>(all.size()));
    for (long i = 0; i < kGuard; ++i) {
      if (all[i] != 0x5A || all[kGuard + bytes + i] != 0x5A) return false;
    }
    return true;
  }
};

inline std::vector<double> RandomValues(size_t n, DataType type, unsigned seed) {
  std::mt19937 gen(seed);
  std::vector<double> out(n);
  if (type == kFloat || type == kHalf) {
    std::uniform_real_distribution<double> dist(-2.0, 2.0);
    for (auto& v : out)
      v = type == kHalf ? HalfToFloat(FloatToHalf(dist(gen))) : static_cast<float>(dist(gen));
  } else if (type == kUInt8 || type == kBool) {
    std::uniform_int_distribution<int> dist(type == kBool ? 0 : 1, type == kBool ? 1 : 200);
    for (auto& v : out) v = dist(gen);
  } else {
    std::uniform_int_distribution<int> dist(-9, 9);
    for (auto& v : out) v = dist(gen);
  }
  if (n && out[0] == 0) out[0] = 1;
  return out;
}

inline std::vector<long> RandomIndices(size_t n, long lo, long hi, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_int_distribution<long> dist(lo, hi - 1);
  std::vector<long> out(n);
  for (auto& v : out) v = dist(gen);
  return out;
}

inline double Tol(DataType type) {
  return type == kHalf ? 4e-3 : type == kFloat ? 2e-5 : 0.0;
}

inline void ExpectNear(const std::vector<double>& got, const std::vector<double>& want,
                       DataType type, double scale = 1.0) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < want.size(); ++i) {
    if (std::isnan(want[i])) {
      EXPECT_TRUE(std::isnan(got[i])) << "at " << i;
      continue;
    }
    EXPECT_NEAR(got[i], want[i], Tol(type) * scale * (1 + std::fabs(want[i]))) << "at " << i;
  }
}

}  // namespace index_util
}  // namespace testing
}  // namespace cl
}  // namespace nerva
