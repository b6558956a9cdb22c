#pragma once

// Shared fixtures of the OpenCL platform tests: one session and one queue for
// the whole binary, so that every device program variant is built once.

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "nerva/nerva.h"
#include "nerva/platform/cl/session_impl.h"

namespace nerva {
namespace cl {
namespace testing {

inline Session& TestSession() {
  static Session session("opencl", 0);
  return session;
}

inline Queue& TestQueue() {
  static Queue queue = TestSession().MakeQueue();
  return queue;
}

inline std::shared_ptr<SessionImpl> TestSessionImpl() {
  return std::dynamic_pointer_cast<SessionImpl>(TestSession().impl());
}

// Makes kernels created while it lives take their GPU programs on any device
// (or, given false, the device's own choice).
class GpuPathsForTesting {
 public:
  explicit GpuPathsForTesting(bool gpu = true) { TestSessionImpl()->TreatAsGpuForTesting(gpu); }
  ~GpuPathsForTesting() { TestSessionImpl()->TreatAsGpuForTesting(false); }
  GpuPathsForTesting(const GpuPathsForTesting&) = delete;
  GpuPathsForTesting& operator=(const GpuPathsForTesting&) = delete;
};

// Makes kernels created while it lives store outputs of any size past the
// caches where their programs can (CPU devices; large outputs only otherwise).
class StreamStoresForTesting {
 public:
  StreamStoresForTesting() { TestSessionImpl()->StreamStoresFromForTesting(1); }
  ~StreamStoresForTesting() { TestSessionImpl()->StreamStoresFromForTesting(0); }
  StreamStoresForTesting(const StreamStoresForTesting&) = delete;
  StreamStoresForTesting& operator=(const StreamStoresForTesting&) = delete;
};

// A device tensor of `sizes` holding `values` (byte copy of the host vector).
template <typename T>
Tensor Upload(const std::vector<T>& values, std::vector<long> sizes, DataType dtype) {
  Tensor tensor = TestSession().MakeTensor(sizes, dtype);
  TestQueue().CopyHostToDevice(tensor.storage(), values.data(),
                               static_cast<long>(values.size() * sizeof(T)));
  return tensor;
}

template <typename T>
std::vector<T> Download(const Tensor& tensor, size_t count) {
  std::vector<T> out(count);
  TestQueue().CopyDeviceToHost(out.data(), tensor.storage(), static_cast<long>(count * sizeof(T)));
  return out;
}

// IEEE half bits <-> float on the host (round to nearest even).
inline float HalfToFloat(uint16_t h) {
  const uint32_t sign = (h & 0x8000u) << 16;
  const int exp = (h >> 10) & 0x1F;
  const uint32_t mant = h & 0x3FFu;
  float mag;
  if (exp == 0) {
    mag = std::ldexp(static_cast<float>(mant), -24);
  } else if (exp == 31) {
    mag = mant ? NAN : INFINITY;
  } else {
    mag = std::ldexp(static_cast<float>(mant | 0x400u), exp - 25);
  }
  uint32_t bits;
  std::memcpy(&bits, &mag, 4);
  bits |= sign;
  std::memcpy(&mag, &bits, 4);
  return mag;
}

inline uint16_t FloatToHalf(float f) {
  uint32_t bits;
  std::memcpy(&bits, &f, 4);
  const uint16_t sign = static_cast<uint16_t>((bits >> 16) & 0x8000u);
  const float a = std::fabs(f);
  if (std::isnan(f)) return sign | 0x7E00u;
  if (a >= 65520.0f) return sign | 0x7C00u;
  if (a < 6.103515625e-05f) {  // subnormal half: multiples of 2^-24
    return sign | static_cast<uint16_t>(std::nearbyint(a * 16777216.0f));
  }
  std::memcpy(&bits, &a, 4);
  bits += 0xFFFu + ((bits >> 13) & 1u);
  return sign | static_cast<uint16_t>((((bits >> 23) - 112u) << 10) | ((bits >> 13) & 0x3FFu));
}

// Uniform random floats in [lo, hi), never all zero.
inline std::vector<float> RandomFloats(size_t n, float lo, float hi, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(lo, hi);
  std::vector<float> out(n);
  for (auto& v : out) v = dist(gen);
  if (n) out[0] = out[0] == 0.0f ? 0.5f : out[0];
  return out;
}

// Sets an environment variable (or unsets it, for a null value) for the
// lifetime of the object, then restores what was there.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) saved_ = old;
    Set(value);
  }
  ~ScopedEnv() { Set(saved_ ? saved_->c_str() : nullptr); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

  void Set(const char* value) {
    if (value)
      setenv(name_.c_str(), value, 1);
    else
      unsetenv(name_.c_str());
  }

 private:
  std::string name_;
  std::optional<std::string> saved_;
};

// Host bytes of `values` stored as `type` (half rounded to nearest even,
// integers truncated toward zero, bool as 0/1).
inline std::vector<uint8_t> ToBytes(const std::vector<double>& values, DataType type) {
  const size_t size = TypeTraitsHelper::GetSize(type);
  std::vector<uint8_t> bytes(values.size() * size);
  for (size_t i = 0; i < values.size(); ++i) {
    uint8_t* p = bytes.data() + i * size;
    const double v = values[i];
    switch (type) {
      case kFloat: {
        const float f = static_cast<float>(v);
        std::memcpy(p, &f, 4);
        break;
      }
      case kHalf: {
        const uint16_t h = FloatToHalf(static_cast<float>(v));
        std::memcpy(p, &h, 2);
        break;
      }
#define NERVA_TEST_INT_CASE(KIND, T) \
  case KIND: {                       \
    const T t = static_cast<T>(v);   \
    std::memcpy(p, &t, sizeof(T));   \
    break;                           \
  }
        NERVA_TEST_INT_CASE(kInt8, int8_t)
        NERVA_TEST_INT_CASE(kInt16, int16_t)
        NERVA_TEST_INT_CASE(kInt32, int32_t)
        NERVA_TEST_INT_CASE(kInt64, int64_t)
        NERVA_TEST_INT_CASE(kUInt8, uint8_t)
        NERVA_TEST_INT_CASE(kUInt16, uint16_t)
        NERVA_TEST_INT_CASE(kUInt32, uint32_t)
        NERVA_TEST_INT_CASE(kUInt64, uint64_t)
#undef NERVA_TEST_INT_CASE
      case kBool:
        p[0] = v != 0;
        break;
      default:
        ADD_FAILURE() << "no host conversion for " << type;
    }
  }
  return bytes;
}

// The values of `bytes` holding `type` elements, as doubles.
inline std::vector<double> FromBytes(const std::vector<uint8_t>& bytes, DataType type) {
  const size_t size = TypeTraitsHelper::GetSize(type);
  std::vector<double> out(bytes.size() / size);
  for (size_t i = 0; i < out.size(); ++i) {
    const uint8_t* p = bytes.data() + i * size;
    switch (type) {
      case kFloat: {
        float f;
        std::memcpy(&f, p, 4);
        out[i] = f;
        break;
      }
      case kHalf: {
        uint16_t h;
        std::memcpy(&h, p, 2);
        out[i] = HalfToFloat(h);
        break;
      }
#define NERVA_TEST_INT_CASE(KIND, T) \
  case KIND: {                       \
    T t;                             \
    std::memcpy(&t, p, sizeof(T));   \
    out[i] = static_cast<double>(t); \
    break;                           \
  }
        NERVA_TEST_INT_CASE(kInt8, int8_t)
        NERVA_TEST_INT_CASE(kInt16, int16_t)
        NERVA_TEST_INT_CASE(kInt32, int32_t)
        NERVA_TEST_INT_CASE(kInt64, int64_t)
        NERVA_TEST_INT_CASE(kUInt8, uint8_t)
        NERVA_TEST_INT_CASE(kUInt16, uint16_t)
        NERVA_TEST_INT_CASE(kUInt32, uint32_t)
        NERVA_TEST_INT_CASE(kUInt64, uint64_t)
        NERVA_TEST_INT_CASE(kBool, uint8_t)
#undef NERVA_TEST_INT_CASE
      default:
        ADD_FAILURE() << "no host conversion for " << type;
    }
  }
  return out;
}

// The values as the device sees them after storing them as `type`.
inline std::vector<double> RoundTrip(const std::vector<double>& values, DataType type) {
  return FromBytes(ToBytes(values, type), type);
}

inline long Count(const std::vector<long>& sizes) {
  long n = 1;
  for (long s : sizes) n *= s;
  return n;
}

// A device tensor holding `values` as `type`.
}  // namespace testing
}  // namespace cl
}  // namespace nerva
