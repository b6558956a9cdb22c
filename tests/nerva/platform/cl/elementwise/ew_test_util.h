#pragma once

// Helpers of the element-wise tests: typed device tensors holding random
// values in any layout (contiguous, transposed, stepped, broadcast), decoded
// back to doubles, and a broadcasting double-precision reference.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <random>
#include <vector>

#include "nerva/platform/cl/cl_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
// Each family's helpers get their own link names: every family links into
// one test binary, and same-named helpers must not replace each other.
inline namespace elementwise_util {

// How an operand is laid out in its buffer.
enum class Layout {
  kContiguous,
  kTransposed,  // the last two dimensions stored swapped
  kStepped,     // every other element along the last dimension
};

// A tensor given to an operator: descriptor, buffer and its values (row-major
// over its sizes, as the operator sees them).
struct Operand {
  TensorOption opt;
  Buffer buf;
  std::vector<double> values;
};

inline long CountOf(const std::vector<long>& sizes) {
  long n = 1;
  for (long s : sizes) n *= s;
  return sizes.empty() ? 0 : n;
}

// The value `v` as stored in `dtype` and read back (rounded, wrapped, 0/1).
inline double Quantize(double v, DataType dtype) {
  switch (dtype) {
    case kFloat:
      return static_cast<float>(v);
    case kHalf:
      return HalfToFloat(FloatToHalf(static_cast<float>(v)));
    case kBool:
      return v != 0 ? 1 : 0;
    case kInt8:
      return static_cast<int8_t>(static_cast<long>(v));
    case kUInt8:
      return static_cast<uint8_t>(static_cast<long>(v));
    case kInt16:
      return static_cast<int16_t>(static_cast<long>(v));
    case kInt32:
      return static_cast<int32_t>(static_cast<long>(v));
    default:
      return static_cast<double>(static_cast<long>(v));
  }
}

inline void Encode(double v, DataType dtype, uint8_t* p) {
  switch (dtype) {
#define NERVA_ENCODE(DT, T)        \
  case DT: {                       \
    const T x = static_cast<T>(v); \
    std::memcpy(p, &x, sizeof(T)); \
    break;                         \
  }
    NERVA_ENCODE(kFloat, float)
    NERVA_ENCODE(kInt8, int8_t)
    NERVA_ENCODE(kInt16, int16_t)
    NERVA_ENCODE(kInt32, int32_t)
    NERVA_ENCODE(kInt64, int64_t)
    NERVA_ENCODE(kUInt8, uint8_t)
    NERVA_ENCODE(kUInt16, uint16_t)
    NERVA_ENCODE(kUInt32, uint32_t)
    NERVA_ENCODE(kUInt64, uint64_t)
#undef NERVA_ENCODE
    case kHalf: {
      const uint16_t h = FloatToHalf(static_cast<float>(v));
      std::memcpy(p, &h, 2);
      break;
    }
    case kBool:
      *p = v != 0;
      break;
    default:
      FAIL() << "no encoding for " << dtype;
  }
}

inline double Decode(DataType dtype, const uint8_t* p) {
  switch (dtype) {
#define NERVA_DECODE(DT, T)        \
  case DT: {                       \
    T x;                           \
    std::memcpy(&x, p, sizeof(T)); \
    return static_cast<double>(x); \
  }
    NERVA_DECODE(kFloat, float)
    NERVA_DECODE(kInt8, int8_t)
    NERVA_DECODE(kInt16, int16_t)
    NERVA_DECODE(kInt32, int32_t)
    NERVA_DECODE(kInt64, int64_t)
    NERVA_DECODE(kUInt8, uint8_t)
    NERVA_DECODE(kUInt16, uint16_t)
    NERVA_DECODE(kUInt32, uint32_t)
    NERVA_DECODE(kUInt64, uint64_t)
    NERVA_DECODE(kBool, uint8_t)
#undef NERVA_DECODE
    case kHalf: {
      uint16_t h;
      std::memcpy(&h, p, 2);
      return HalfToFloat(h);
    }
    default:
      return NAN;
  }
}

// Random values for `dtype` in [lo, hi] (integers: whole numbers; bool: 0/1).
inline std::vector<double> RandomValues(size_t n, DataType dtype, double lo, double hi,
                                        unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> dist(lo, hi);
  std::vector<double> out(n);
  for (auto& v : out) {
    v = dist(gen);
    if (dtype == kBool) v = v > (lo + hi) / 2;
    if (!TypeTraitsHelper::IsFloattingPoint(dtype)) v = std::round(v);
    v = Quantize(v, dtype);
  }
  return out;
}

// An operand of `sizes` and `dtype` holding `values` in `layout`.
inline Operand MakeOperand(const std::vector<long>& sizes, DataType dtype,
                           std::vector<double> values, Layout layout = Layout::kContiguous) {
  const size_t rank = sizes.size();
  std::vector<long> storage_sizes = sizes;  // sizes in storage order
  if (layout == Layout::kTransposed && rank >= 2)
    std::swap(storage_sizes[rank - 1], storage_sizes[rank - 2]);
  if (layout == Layout::kStepped && rank >= 1) storage_sizes[rank - 1] *= 2;
  std::vector<long> storage_strides(rank, 1);
  for (size_t i = rank; i-- > 1;) storage_strides[i - 1] = storage_strides[i] * storage_sizes[i];
  std::vector<long> strides = storage_strides;
  if (layout == Layout::kTransposed && rank >= 2) std::swap(strides[rank - 1], strides[rank - 2]);
  if (layout == Layout::kStepped && rank >= 1) strides[rank - 1] *= 2;
  const long item = static_cast<long>(TypeTraitsHelper::GetSize(dtype));
  const long storage_count = std::max(CountOf(storage_sizes), 1L);
  std::vector<uint8_t> bytes(static_cast<size_t>(storage_count * item), 0);
  std::vector<long> index(rank, 0);
  for (size_t k = 0; k < values.size(); ++k) {
    long at = 0;
    for (size_t d = 0; d < rank; ++d) at += index[d] * strides[d];
    Encode(values[k], dtype, bytes.data() + at * item);
    for (size_t d = rank; d-- > 0;) {
      if (++index[d] < sizes[d]) break;
      index[d] = 0;
    }
  }
  Operand op;
  op.opt = TensorOption{Shape(sizes, strides), dtype};
  op.buf = TestSession().MakeBuffer(kMemReadWrite, static_cast<long>(bytes.size()));
  TestQueue().CopyHostToDevice(op.buf, bytes.data(), static_cast<long>(bytes.size()));
  op.values = std::move(values);
  return op;
}

inline Operand RandomOperand(const std::vector<long>& sizes, DataType dtype, double lo, double hi,
                             unsigned seed, Layout layout = Layout::kContiguous) {
  return MakeOperand(
      sizes, dtype, RandomValues(static_cast<size_t>(CountOf(sizes)), dtype, lo, hi, seed), layout);
}

// A contiguous output operand (its values are read back with ReadBack).
inline Operand OutputOperand(const std::vector<long>& sizes, DataType dtype) {
  return MakeOperand(sizes, dtype, std::vector<double>(static_cast<size_t>(CountOf(sizes)), 0));
}

// The operand's elements in row-major order, as doubles.
inline std::vector<double> ReadBack(const Operand& op) {
  std::vector<uint8_t> bytes(static_cast<size_t>(op.buf.size()));
  TestQueue().CopyDeviceToHost(bytes.data(), op.buf, static_cast<long>(bytes.size()));
  const auto& sizes = op.opt.shape.sizes();
  const auto& strides = op.opt.shape.strides();
  const long item = static_cast<long>(op.opt.item_size());
  std::vector<double> out(static_cast<size_t>(CountOf(sizes)));
  std::vector<long> index(sizes.size(), 0);
  for (size_t k = 0; k < out.size(); ++k) {
    long at = 0;
    for (size_t d = 0; d < sizes.size(); ++d) at += index[d] * strides[d];
    out[k] = Decode(op.opt.dtype, bytes.data() + at * item);
    for (size_t d = sizes.size(); d-- > 0;) {
      if (++index[d] < sizes[d]) break;
      index[d] = 0;
    }
  }
  return out;
}

// fn applied to the inputs broadcast to `out_sizes`, row-major.
inline std::vector<double> BroadcastReference(
    const std::vector<long>& out_sizes, const std::vector<const Operand*>& inputs,
    const std::function<double(const std::vector<double>&)>& fn) {
  const size_t rank = out_sizes.size();
  std::vector<double> out(static_cast<size_t>(CountOf(out_sizes)));
  std::vector<long> index(rank, 0);
  std::vector<double> args(inputs.size());
  for (size_t k = 0; k < out.size(); ++k) {
    for (size_t i = 0; i < inputs.size(); ++i) {
      const auto& sizes = inputs[i]->opt.shape.sizes();
      const size_t lead = rank - sizes.size();
      long at = 0;
      for (size_t d = 0; d < sizes.size(); ++d) {
        at = at * sizes[d] + (sizes[d] == 1 ? 0 : index[lead + d]);
      }
      args[i] = inputs[i]->values[static_cast<size_t>(at)];
    }
    out[k] = fn(args);
    for (size_t d = rank; d-- > 0;) {
      if (++index[d] < out_sizes[d]) break;
      index[d] = 0;
    }
  }
  return out;
}

// Compares results: NaN must match NaN, infinities exactly, others within
// atol + rtol * |expected|.
inline void ExpectClose(const std::vector<double>& got, const std::vector<double>& expected,
                        double rtol, double atol, const std::string& what) {
  ASSERT_EQ(got.size(), expected.size()) << what;
  for (size_t i = 0; i < got.size(); ++i) {
    const double e = expected[i], g = got[i];
    if (std::isnan(e)) {
      ASSERT_TRUE(std::isnan(g)) << what << " at " << i << ": got " << g << ", expected NaN";
    } else if (std::isinf(e)) {
      ASSERT_EQ(g, e) << what << " at " << i;
    } else {
      ASSERT_NEAR(g, e, atol + rtol * std::fabs(e)) << what << " at " << i;
    }
  }
}

}  // namespace elementwise_util
}  // namespace testing
}  // namespace cl
}  // namespace nerva
