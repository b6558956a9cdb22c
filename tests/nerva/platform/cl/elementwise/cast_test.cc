// Cast ("Copy") between element types and layouts.

#include <cmath>
#include <limits>
#include <optional>

#include "nerva/platform/cl/elementwise/ew_test_util.h"
#include "nerva/platform/cl/kernel/elementwise/copy.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

std::pair<double, double> RangeOf(DataType t) {
  switch (t) {
    case kInt8:
      return {-128, 127};
    case kUInt8:
      return {0, 255};
    case kInt16:
      return {-32768, 32767};
    case kInt32:
      return {-2147483648.0, 2147483647.0};
    default:
      return {-9.2e18, 9.2e18};
  }
}

// PyTorch's conversion; floating point into integers saturates (see copy.h).
double CastRef(double v, DataType from, DataType to) {
  if (to == kBool) return v != 0;
  const bool from_float = TypeTraitsHelper::IsFloattingPoint(from);
  if (from_float && !TypeTraitsHelper::IsFloattingPoint(to)) {
    if (std::isnan(v)) return 0;
    const auto range = RangeOf(to);
    return std::clamp(std::trunc(v), range.first, range.second);
  }
  return Quantize(v, to);
}

void CheckCast(DataType from, DataType to, const std::vector<long>& sizes, Layout layout,
               unsigned seed) {
  Operand in = RandomOperand(sizes, from, -300, 300, seed, layout);
  if (TypeTraitsHelper::IsFloattingPoint(from) && in.values.size() > 3) {
    in.values[0] = NAN;
    in.values[1] = 0.75;
    in.values[2] = -0.75;
    in = MakeOperand(sizes, from, in.values, layout);
  }
  Operand out = OutputOperand(sizes, to);
  TestQueue().Enqueue(Cast::Create(TestQueue(), in.opt, in.buf, out.opt, out.buf));
  std::vector<double> expected(in.values.size());
  for (size_t i = 0; i < expected.size(); ++i) expected[i] = CastRef(in.values[i], from, to);
  ExpectClose(ReadBack(out), expected, 0, 0, StrCat(from, " -> ", to));
}

// Each conversion kind: float to half and back, saturating float to integers,
// wrapping between integers, anything to bool, integers and bool to floats.
TEST(CastTest, TypePairs) {
  const std::pair<DataType, DataType> pairs[] = {{kFloat, kHalf}, {kHalf, kFloat}, {kFloat, kInt8},
                                                 {kHalf, kUInt8}, {kInt32, kInt8}, {kInt8, kUInt8},
                                                 {kFloat, kBool}, {kInt32, kBool}, {kInt8, kFloat},
                                                 {kBool, kHalf},  {kInt32, kInt64}};
  unsigned seed = 1;
  for (const auto& p : pairs) CheckCast(p.first, p.second, {1001}, Layout::kContiguous, seed++);
}

TEST(CastTest, Layouts) {
  for (long n : {1L, 3L, 4L, 5L}) CheckCast(kFloat, kHalf, {n}, Layout::kContiguous, 50);
  CheckCast(kFloat, kHalf, {31, 29}, Layout::kTransposed, 51);
  CheckCast(kInt32, kInt8, {4, 9}, Layout::kStepped, 52);
  CheckCast(kFloat, kFloat, {2, 3, 2, 3, 2, 5}, Layout::kTransposed, 53);
  CheckCast(kFloat, kHalf, {0}, Layout::kContiguous, 54);
}

// IEEE half bits of `v`, rounded to nearest with ties to even, computed on
// the value: 2^-24 units below 2^-14, else 11 significant bits.
uint16_t HalfBitsRef(float v) {
  const uint16_t sign = std::signbit(v) ? 0x8000 : 0;
  const double a = std::fabs(static_cast<double>(v));
  if (std::isnan(v)) return sign | 0x7E00;
  const int exp = a < std::ldexp(1.0, -14) ? -14 : std::ilogb(a);
  const double units = std::nearbyint(std::ldexp(a, 10 - exp));  // ties to even
  const double r = std::ldexp(units, exp - 10);
  if (r >= 65536.0) return sign | 0x7C00;
  if (r < std::ldexp(1.0, -14)) return sign | static_cast<uint16_t>(std::ldexp(r, 24));
  const int e = std::ilogb(r);
  const auto mant = static_cast<uint16_t>(std::ldexp(r, 10 - e) - 1024);
  return sign | static_cast<uint16_t>(((e + 15) << 10) | mant);
}

// Float to half bit for bit: ties in normal and subnormal range, overflow at
// 65520, infinities, NaN, signed zeros, float subnormals, random values, over
// lengths and layouts of every launch kind, on both device classes (and the
// CPU's streaming stores).
TEST(CastTest, HalfRoundingExact) {
  std::vector<float> specials = {1.0f + std::ldexp(1.0f, -11),      // tie, rounds down to even
                                 1.0f + 3 * std::ldexp(1.0f, -11),  // tie, rounds up to even
                                 -(2.0f + std::ldexp(1.0f, -10)),
                                 std::ldexp(1.0f, -25),      // half the smallest subnormal: 0
                                 3 * std::ldexp(1.0f, -25),  // tie between 1 and 2 units: 2
                                 5 * std::ldexp(1.0f, -25),
                                 std::ldexp(1.0f, -14) - std::ldexp(1.0f, -26),
                                 65504.0f,
                                 65519.99f,
                                 -65520.0f,
                                 1e10f,
                                 INFINITY,
                                 -INFINITY,
                                 NAN,
                                 -NAN,
                                 0.0f,
                                 -0.0f,
                                 std::ldexp(1.0f, -140),
                                 -1e-30f};
  const std::vector<float> random = RandomFloats(4097, -70000.0f, 70000.0f, 61);
  for (int mode : {0, 1, 2}) {  // CPU programs, GPU programs, CPU with streaming stores
    const bool gpu = mode == 1;
    const GpuPathsForTesting paths(gpu);
    std::optional<StreamStoresForTesting> streaming;
    if (mode == 2) streaming.emplace();
    for (long n : {1L, 3L, 5L, 17L, 19L, 64L, 4097L}) {
      std::vector<float> values(random.begin(), random.begin() + n);
      for (long i = 0; i < n && i < static_cast<long>(specials.size()); ++i)
        values[i] = specials[i];
      for (long i = specials.size(); i + 1 < n; i += 7) values[i] *= std::ldexp(1.0f, -20);
      std::vector<double> as_double(values.begin(), values.end());
      Operand in = MakeOperand({n}, kFloat, as_double);
      Operand out = OutputOperand({n}, kHalf);
      TestQueue().Enqueue(Cast::Create(TestQueue(), in.opt, in.buf, out.opt, out.buf));
      std::vector<uint16_t> bits(static_cast<size_t>(n));
      TestQueue().CopyDeviceToHost(bits.data(), out.buf, n * 2);
      for (long i = 0; i < n; ++i) {
        const uint16_t want = HalfBitsRef(values[i]);
        if (std::isnan(values[i])) {
          ASSERT_EQ(bits[i] & 0xFC00, want & 0xFC00) << "NaN at " << i << " gpu " << gpu;
          ASSERT_NE(bits[i] & 0x3FF, 0) << "NaN at " << i << " gpu " << gpu;
        } else {
          ASSERT_EQ(bits[i], want) << values[i] << " at " << i << " of " << n << " gpu " << gpu;
        }
      }
    }
    CheckCast(kFloat, kHalf, {48, 64}, Layout::kTransposed, 62);
  }
}

TEST(CastTest, GpuVariants) {
  const GpuPathsForTesting gpu;
  for (long n : {1L, 3L, 1001L}) CheckCast(kFloat, kHalf, {n}, Layout::kContiguous, 55);
  CheckCast(kHalf, kFloat, {31, 29}, Layout::kTransposed, 56);
}

TEST(CastTest, ShapesMustMatch) {
  Operand in = OutputOperand({2, 3}, kFloat), out = OutputOperand({3, 2}, kHalf);
  Operand row = OutputOperand({1, 3}, kFloat), wide = OutputOperand({2, 3}, kHalf);
  EXPECT_THROW(Cast::Create(TestQueue(), in.opt, in.buf, out.opt, out.buf), std::runtime_error);
  EXPECT_THROW(Cast::Create(TestQueue(), row.opt, row.buf, wide.opt, wide.buf), std::runtime_error);
  TensorOption dbl{Shape({2, 3}), kDouble};
  EXPECT_THROW(Cast::Create(TestQueue(), in.opt, in.buf, dbl, wide.buf), std::invalid_argument);
}

// Dimensions are merged where every tensor is contiguous across them.
TEST(ElementwiseFrameTest, CoalesceLayout) {
  Buffer buf = TestSession().MakeBuffer(kMemReadWrite, 4096);
  Tensor c(TensorOption{Shape({2, 3, 4, 5}), kFloat}, buf, 0);
  ElementwiseLayout flat = CoalesceLayout(c, {c});
  EXPECT_EQ(flat.sizes, (std::vector<long>{120}));
  EXPECT_EQ(flat.strides[1], (std::vector<long>{4}));
  // A row broadcast over [4, 5]: two dimensions, the row's outer stride 0.
  Tensor row(TensorOption{Shape({5}), kFloat}, buf, 0);
  Tensor m(TensorOption{Shape({4, 5}), kFloat}, buf, 0);
  ElementwiseLayout bc = CoalesceLayout(m, {m, row});
  EXPECT_EQ(bc.sizes, (std::vector<long>{5, 4}));
  EXPECT_EQ(bc.strides[2], (std::vector<long>{4, 0}));
  // Transposed input: nothing merges; size-1 dimensions vanish.
  Tensor t(TensorOption{Shape({3, 1, 4}, std::vector<long>{1, 12, 3}), kFloat}, buf, 0);
  Tensor o(TensorOption{Shape({3, 1, 4}), kFloat}, buf, 0);
  ElementwiseLayout tr = CoalesceLayout(o, {t});
  EXPECT_EQ(tr.sizes, (std::vector<long>{4, 3}));
  EXPECT_EQ(tr.strides[1], (std::vector<long>{12, 4}));
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
