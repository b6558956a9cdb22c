#pragma once

// Matrix-product test cases: typed random operands, the product through the
// "MatMul"/"Gemm" front-ends, and a plain double-precision host reference that
// follows torch.matmul's broadcasting and the accumulation type's wraparound.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include "nerva/platform/cl/cl_test_util.h"
#include "nerva/platform/cl/kernel/gemm/matmul.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {
namespace testing {

// A host tensor of doubles with its type, sizes and element strides.
struct HostTensor {
  DataType dtype = kFloat;
  std::vector<long> sizes;
  std::vector<long> strides;  // elements; contiguous when made by MakeHost
  std::vector<double> data;   // storage, strides index into it

  long numel() const {
    long n = 1;
    for (long s : sizes) n *= s;
    return n;
  }
  double at(const std::vector<long>& index) const {
    long offset = 0;
    for (size_t i = 0; i < index.size(); ++i) offset += index[i] * strides[i];
    return data[offset];
  }
};

// The value `v` as stored in `dtype` and read back (rounding, wrapping).
inline double RoundTo(DataType dtype, double v) {
  switch (dtype) {
    case kFloat:
      return static_cast<float>(v);
    case kHalf:
      return HalfToFloat(FloatToHalf(static_cast<float>(v)));
    case kInt8:
      return static_cast<int8_t>(static_cast<int64_t>(v));
    case kUInt8:
      return static_cast<uint8_t>(static_cast<int64_t>(v));
    case kInt16:
      return static_cast<int16_t>(static_cast<int64_t>(v));
    case kUInt16:
      return static_cast<uint16_t>(static_cast<int64_t>(v));
    case kInt32:
      return static_cast<int32_t>(static_cast<int64_t>(v));
    case kUInt32:
      return static_cast<uint32_t>(static_cast<int64_t>(v));
    default:
      return static_cast<double>(static_cast<int64_t>(v));
  }
}

// Random values for `dtype`: floats in [-1, 1), small integers otherwise.
inline HostTensor MakeHost(DataType dtype, std::vector<long> sizes, unsigned seed, double lo = -4,
                           double hi = 5) {
  HostTensor t;
  t.dtype = dtype;
  t.sizes = sizes;
  t.strides.assign(sizes.size(), 1);
  for (size_t i = sizes.size(); i-- > 1;) t.strides[i - 1] = t.strides[i] * sizes[i];
  std::mt19937 gen(seed);
  const bool is_float = dtype == kFloat || dtype == kHalf;
  const bool is_unsigned = !is_float && !TypeTraitsHelper::IsSigned(dtype);
  std::uniform_real_distribution<double> real(-1.0, 1.0);
  std::uniform_int_distribution<int> whole(is_unsigned ? 0 : static_cast<int>(lo),
                                           static_cast<int>(hi));
  t.data.resize(static_cast<size_t>(t.numel()));
  for (auto& v : t.data) v = RoundTo(dtype, is_float ? real(gen) : whole(gen));
  if (!t.data.empty() && t.data[0] == 0) t.data[0] = 1;
  return t;
}

// The storage bytes of a host tensor in its type.
inline std::vector<uint8_t> Encode(const HostTensor& t) {
  const size_t item = TypeTraitsHelper::GetSize(t.dtype);
  std::vector<uint8_t> bytes(t.data.size() * item);
  for (size_t i = 0; i < t.data.size(); ++i) {
    const double v = t.data[i];
    uint8_t* p = bytes.data() + i * item;
    auto put = [p](auto x) { std::memcpy(p, &x, sizeof(x)); };
    switch (t.dtype) {
      case kFloat:
        put(static_cast<float>(v));
        break;
      case kHalf:
        put(FloatToHalf(static_cast<float>(v)));
        break;
      case kInt8:
        put(static_cast<int8_t>(v));
        break;
      case kUInt8:
        put(static_cast<uint8_t>(v));
        break;
      case kInt16:
        put(static_cast<int16_t>(v));
        break;
      case kUInt16:
        put(static_cast<uint16_t>(v));
        break;
      case kInt32:
        put(static_cast<int32_t>(v));
        break;
      case kUInt32:
        put(static_cast<uint32_t>(v));
        break;
      case kInt64:
        put(static_cast<int64_t>(v));
        break;
      default:
        put(static_cast<uint64_t>(v));
        break;
    }
  }
  return bytes;
}

inline std::vector<double> Decode(DataType dtype, const std::vector<uint8_t>& bytes) {
  const size_t item = TypeTraitsHelper::GetSize(dtype);
  std::vector<double> out(bytes.size() / item);
  for (size_t i = 0; i < out.size(); ++i) {
    const uint8_t* p = bytes.data() + i * item;
    auto get = [p](auto x) {
      std::memcpy(&x, p, sizeof(x));
      return x;
    };
    switch (dtype) {
      case kFloat:
        out[i] = get(0.0f);
        break;
      case kHalf:
        out[i] = HalfToFloat(get(uint16_t{0}));
        break;
      case kInt8:
        out[i] = get(int8_t{0});
        break;
      case kUInt8:
        out[i] = get(uint8_t{0});
        break;
      case kInt16:
        out[i] = get(int16_t{0});
        break;
      case kUInt16:
        out[i] = get(uint16_t{0});
        break;
      case kInt32:
        out[i] = get(int32_t{0});
        break;
      case kUInt32:
        out[i] = get(uint32_t{0});
        break;
      case kInt64:
        out[i] = static_cast<double>(get(int64_t{0}));
        break;
      default:
        out[i] = static_cast<double>(get(uint64_t{0}));
        break;
    }
  }
  return out;
}

inline Buffer UploadHost(const HostTensor& t) {
  const std::vector<uint8_t> bytes = Encode(t);
  Buffer buffer =
      TestSession().MakeBuffer(kMemReadWrite, static_cast<long>(std::max<size_t>(bytes.size(), 1)));
  if (!bytes.empty()) {
    TestQueue().CopyHostToDevice(buffer, bytes.data(), static_cast<long>(bytes.size()));
  }
  return buffer;
}

inline TensorOption OptionOf(const HostTensor& t) {
  return TensorOption{Shape(t.sizes, t.strides), t.dtype};
}

// Saturating conversion of an accumulated value to an integer output type.
inline double Saturate(DataType dtype, double v) {
  if (dtype == kFloat || dtype == kHalf) return RoundTo(dtype, v);
  const size_t bits = TypeTraitsHelper::GetBits(dtype);
  const bool is_signed = TypeTraitsHelper::IsSigned(dtype);
  const double hi = is_signed ? std::ldexp(1.0, static_cast<int>(bits) - 1) - 1
                              : std::ldexp(1.0, static_cast<int>(bits)) - 1;
  const double lo = is_signed ? -hi - 1 : 0;
  return std::clamp(std::trunc(v), lo, hi);
}

// One product: operands, options, and the GEMM-mode input when present.
struct ProductCase {
  HostTensor mat1, mat2;
  std::optional<HostTensor> input;
  MatMulOption option;
  DataType out_dtype = kFloat;
};

// torch.matmul's output sizes for the case.
std::vector<long> ProductSizes(const ProductCase& c);
// The expected output (contiguous, in the output's sizes), accumulated in the
// accumulation type (integers wrap) and converted to the output type.
std::vector<double> Reference(const ProductCase& c);
// Runs the product on the device; returns the output values and the kernel.
std::vector<double> RunDevice(const ProductCase& c, Kernel* kernel = nullptr);
// Runs and compares with the reference (tolerance relative to sqrt(K)).
void ExpectProduct(const ProductCase& c, const std::string& label);

}  // namespace testing
}  // namespace cl
}  // namespace nerva
