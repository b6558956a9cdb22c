#pragma once

// Helpers of the reduction tests: typed host buffers from doubles and back,
// device tensors, and index arithmetic for reference loops.

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "nerva/platform/cl/cl_test_util.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {
namespace testing {
// Each family's helpers get their own link names: every family links into
// one test binary, and same-named helpers must not replace each other.
inline namespace reduce_util {

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
inline Tensor UploadAs(const std::vector<double>& values, const std::vector<long>& sizes,
                       DataType type) {
  return Upload(ToBytes(values, type), sizes, type);
}

// A device tensor of `sizes` and `type` filled with a marker pattern.
inline Tensor MakeOutput(const std::vector<long>& sizes, DataType type) {
  std::vector<double> fill(static_cast<size_t>(Count(sizes)), 77.0);
  return UploadAs(fill, sizes, type);
}

inline std::vector<double> DownloadAs(const Tensor& tensor) {
  const size_t n = static_cast<size_t>(Count(tensor.shape().sizes()));
  return FromBytes(Download<uint8_t>(tensor, n * TypeTraitsHelper::GetSize(tensor.dtype())),
                   tensor.dtype());
}

// Random values in [lo, hi); integer-valued when `integral`.
inline std::vector<double> RandomValues(size_t n, double lo, double hi, unsigned seed,
                                        bool integral = false) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> dist(lo, hi);
  std::vector<double> out(n);
  for (auto& v : out) v = integral ? std::floor(dist(gen)) : dist(gen);
  if (n && out[0] == 0) out[0] = 1;
  return out;
}

// Row-major multi-index of flat position `flat`.
inline std::vector<long> Unflatten(long flat, const std::vector<long>& sizes) {
  std::vector<long> index(sizes.size());
  for (size_t i = sizes.size(); i-- > 0;) {
    index[i] = flat % sizes[i];
    flat /= sizes[i];
  }
  return index;
}

inline long Flatten(const std::vector<long>& index, const std::vector<long>& sizes) {
  long flat = 0;
  for (size_t i = 0; i < sizes.size(); ++i) flat = flat * sizes[i] + index[i];
  return flat;
}

// The device kernel names of a created kernel, in execution order.
inline std::vector<std::string> UnitNames(const Kernel& kernel) {
  std::vector<std::string> names;
  auto impl = std::dynamic_pointer_cast<KernelImpl>(kernel.impl());
  if (impl) {
    for (const auto& unit : impl->units()) names.push_back(unit->name());
  }
  return names;
}

}  // namespace reduce_util
}  // namespace testing
}  // namespace cl
}  // namespace nerva
