// Cast ("Copy") between element types and layouts.

#include <cmath>
#include <limits>

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
