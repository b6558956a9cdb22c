// Binary and Cast on the OpenCL device against double-precision and integer
// references written from PyTorch's definitions.

#include <cmath>
#include <optional>
#include <stdexcept>

#include "nerva/platform/cl/elementwise/ew_test_util.h"
#include "nerva/platform/cl/kernel/elementwise/binary.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

using B = BinaryType;

double FloatRef(B op, double a, double b, double alpha) {
  switch (op) {
    case B::kAdd:
      return a + alpha * b;
    case B::kSub:
      return a - alpha * b;
    case B::kMul:
      return a * b;
    case B::kDiv:
      return a / b;
    case B::kDivTrunc:
      return std::trunc(a / b);
    case B::kDivFloor:
      return std::floor(a / b);
    case B::kRemainder:
      return a - std::floor(a / b) * b;
    case B::kFmod:
      return std::fmod(a, b);
    case B::kPow:
      return std::pow(a, b);
    case B::kMaximum:
      return std::isnan(a) || std::isnan(b) ? NAN : std::max(a, b);
    case B::kMinimum:
      return std::isnan(a) || std::isnan(b) ? NAN : std::min(a, b);
    case B::kFmax:
      return std::fmax(a, b);
    case B::kFmin:
      return std::fmin(a, b);
    case B::kAtan2:
      return std::atan2(a, b);
    case B::kHypot:
      return std::hypot(a, b);
    case B::kCopysign:
      return std::copysign(a, b);
    case B::kXlogy:
      return std::isnan(b) ? NAN : a == 0 ? 0 : a * std::log(b);
    case B::kEq:
      return a == b;
    case B::kNe:
      return a != b;
    case B::kLt:
      return a < b;
    case B::kLe:
      return a <= b;
    case B::kGt:
      return a > b;
    case B::kGe:
      return a >= b;
    case B::kLogicalAnd:
      return (a != 0) && (b != 0);
    case B::kLogicalOr:
      return (a != 0) || (b != 0);
    case B::kLogicalXor:
      return (a != 0) != (b != 0);
    default:
      return NAN;
  }
}

// Integer semantics of a common type of `bits` bits; the caller wraps the result.
double IntRef(B op, long a, long b, long alpha, int bits, bool is_signed) {
  // Floor division, only meaningful (and only computed) for a non-zero divisor.
  const long fb = b == 0 ? 0 : static_cast<long>(std::floor(static_cast<double>(a) / b));
  switch (op) {
    case B::kAdd:
      return a + alpha * b;
    case B::kSub:
      return a - alpha * b;
    case B::kDivTrunc:
      return b == 0 ? 0 : a / b;
    case B::kDivFloor:
      return b == 0 ? 0 : fb;
    case B::kRemainder:
      return b == 0 ? 0 : a - fb * b;
    case B::kFmod:
      return b == 0 ? 0 : a % b;
    case B::kPow: {
      if (b < 0) return a == 1 ? 1 : a == -1 ? (b % 2 ? -1 : 1) : 0;
      long r = 1;
      for (long i = 0; i < b; ++i) r = static_cast<long>(static_cast<unsigned long>(r) * a);
      return r;
    }
    case B::kMaximum:
      return std::max(a, b);
    case B::kMinimum:
      return std::min(a, b);
    case B::kBitwiseAnd:
      return a & b;
    case B::kBitwiseOr:
      return a | b;
    case B::kBitwiseXor:
      return a ^ b;
    case B::kBitwiseLeftShift:
      return b < 0 || b >= bits ? 0 : static_cast<long>(static_cast<unsigned long>(a) << b);
    case B::kBitwiseRightShift:
      if (!is_signed) return b < 0 || b >= bits ? 0 : a >> b;
      return b < 0 || b >= bits - 1 ? a >> (bits - 1) : a >> b;
    default:
      return FloatRef(op, static_cast<double>(a), static_cast<double>(b), alpha);
  }
}

struct BinaryRun {
  B op;
  DataType a_type, b_type, out_type;
  std::vector<long> a_sizes, b_sizes;
  Layout a_layout = Layout::kContiguous;
  Layout b_layout = Layout::kContiguous;
  double lo = -5, hi = 5;  // value range of both inputs
  float alpha = 1.0f;
};

void Check(const BinaryRun& r, unsigned seed) {
  Operand a = RandomOperand(r.a_sizes, r.a_type, r.lo, r.hi, seed, r.a_layout);
  Operand b = RandomOperand(r.b_sizes, r.b_type, r.lo, r.hi, seed + 100, r.b_layout);
  const auto types = BinaryKernel::Types(r.op, r.a_type, r.b_type);
  const DataType arg = types.first.first;
  const bool integral = !TypeTraitsHelper::IsFloattingPoint(arg);
  const int bits = static_cast<int>(TypeTraitsHelper::GetSize(arg) * 8);
  const bool is_signed = TypeTraitsHelper::IsSigned(arg);
  std::vector<long> out_sizes;
  ASSERT_TRUE(BroadcastTogether(r.a_sizes, r.b_sizes, &out_sizes));
  auto fn = [&](const std::vector<double>& v) {
    const double y = integral ? IntRef(r.op, static_cast<long>(v[0]), static_cast<long>(v[1]),
                                       static_cast<long>(r.alpha), bits, is_signed)
                              : FloatRef(r.op, v[0], v[1], r.alpha);
    // Wrapped to the result type, then stored as the output type.
    return Quantize(Quantize(y, types.second), r.out_type);
  };
  const std::vector<double> expected = BroadcastReference(out_sizes, {&a, &b}, fn);
  Operand out = OutputOperand(out_sizes, r.out_type);
  TestQueue().Enqueue(Binary::Create(TestQueue(), BinaryOption{r.op, r.alpha}, a.opt, a.buf, b.opt,
                                     b.buf, out.opt, out.buf));
  const double rtol = r.out_type == kHalf ? 2e-3 : 2e-5;
  ExpectClose(ReadBack(out), expected, rtol, rtol * 0.1,
              StrCat(BinaryKernel::OpName(r.op), " ", r.a_type, " ", r.b_type));
}

// Every floating-point operator, over a length with a leftover vector.
TEST(BinaryTest, EveryOperatorOnFloat) {
  for (int code = 0; code <= static_cast<int>(B::kLogicalXor); ++code) {
    const B op = static_cast<B>(code);
    BinaryRun r{op, kFloat, kFloat, kFloat, {1003}, {1003}};
    if (op >= B::kEq) r.out_type = kBool;
    if (op == B::kPow || op == B::kXlogy) r.lo = 0.1;
    if (op >= B::kEq) r.lo = -2, r.hi = 2;  // equal values occur after rounding
    if (op == B::kAdd) r.alpha = 2.0f;
    if (op == B::kSub) r.alpha = 0.5f;
    Check(r, 20 + code);
  }
}

TEST(BinaryTest, IntegerSemantics) {
  const B ops[] = {B::kAdd, B::kDivTrunc,   B::kDivFloor,         B::kRemainder,        B::kFmod,
                   B::kPow, B::kBitwiseXor, B::kBitwiseLeftShift, B::kBitwiseRightShift};
  for (B op : ops) {
    BinaryRun r{op,
                kInt32,
                kInt32,
                kInt32,
                {1001},
                {1001},
                Layout::kContiguous,
                Layout::kContiguous,
                -40,
                40,
                op == B::kAdd ? 3.0f : 1.0f};
    if (op == B::kPow) r.lo = -3, r.hi = 9;
    Check(r, 60 + static_cast<unsigned>(op));
  }
  // int8 wraps; shifts past the width.
  for (B op : {B::kMul, B::kBitwiseRightShift}) {
    Check({op, kInt8, kInt8, kInt8, {5}, {5}, Layout::kContiguous, Layout::kContiguous, -20, 20},
          90 + static_cast<unsigned>(op));
  }
  // Division by zero gives 0; the smallest value over -1 does not trap.
  Operand a = MakeOperand({4}, kInt32, {7, -7, -2147483648.0, 5});
  Operand b = MakeOperand({4}, kInt32, {0, 2, -1, -1});
  Operand out = OutputOperand({4}, kInt32);
  TestQueue().Enqueue(Binary::Create(TestQueue(), BinaryOption{B::kDivFloor}, a.opt, a.buf, b.opt,
                                     b.buf, out.opt, out.buf));
  EXPECT_EQ(ReadBack(out), (std::vector<double>{0, -4, -2147483648.0, -5}));
}

// Types: half, bool, and promotion between different input types.
TEST(BinaryTest, TypeMatrix) {
  Check({B::kAdd, kHalf, kHalf, kHalf, {1001}, {1001}}, 1);
  Check({B::kDiv, kHalf, kHalf, kHalf, {7}, {7}, Layout::kContiguous, Layout::kContiguous, 0.5, 4},
        2);
  Check({B::kAdd, kBool, kBool, kBool, {9}, {9}}, 3);
  Check({B::kLogicalAnd, kBool, kInt8, kBool, {9}, {9}}, 4);
  Check({B::kAdd, kInt32, kFloat, kFloat, {9}, {9}}, 6);
  Check({B::kMul,
         kInt8,
         kInt32,
         kInt32,
         {9},
         {9},
         Layout::kContiguous,
         Layout::kContiguous,
         -100,
         100},
        7);
  Check({B::kLt, kInt32, kFloat, kBool, {9}, {9}, Layout::kContiguous, Layout::kContiguous, -2, 2},
        9);
  Check({B::kDiv, kInt32, kInt32, kFloat, {9}, {9}, Layout::kContiguous, Layout::kContiguous, 1, 9},
        10);
  Check({B::kAdd, kInt32, kInt32, kInt64, {9}, {9}}, 12);  // written into a wider output
}

// Broadcasting and views.
TEST(BinaryTest, Layouts) {
  Check({B::kAdd, kFloat, kFloat, kFloat, {4, 1, 5}, {3, 1}}, 30);
  Check({B::kMul, kInt32, kInt32, kInt32, {4, 1, 5}, {3, 1}}, 31);
  Check({B::kAdd, kFloat, kFloat, kFloat, {37, 41}, {37, 41}, Layout::kTransposed}, 32);
  Check({B::kAdd, kFloat, kFloat, kFloat, {6, 7}, {6, 7}, Layout::kStepped, Layout::kTransposed},
        33);
  Check({B::kAdd, kFloat, kFloat, kFloat, {2, 3, 2, 3, 2, 5}, {3, 1, 3, 2, 1}, Layout::kStepped},
        34);
  Check({B::kAdd, kHalf, kHalf, kHalf, {3, 4, 5}, {5}, Layout::kTransposed}, 35);
  for (long n : {1L, 3L, 4L, 5L, 1000003L}) Check({B::kAdd, kFloat, kFloat, kFloat, {n}, {n}}, 36);
  Check({B::kAdd, kFloat, kFloat, kFloat, {0, 3}, {3}}, 37);  // empty
}

// The CPU launches: one item per element with groups that divide the length
// (or none), row runs for a broadcast row, tiles for a transposed input.
TEST(BinaryTest, CpuGroupShapes) {
  for (long n : {1L, 3L, 5L, 17L, 4096L, 4097L})
    Check({B::kAdd, kFloat, kFloat, kFloat, {n}, {n}}, 40);
  Check({B::kSub,
         kInt8,
         kInt8,
         kInt8,
         {4097},
         {4097},
         Layout::kContiguous,
         Layout::kContiguous,
         -100,
         100},
        41);
  for (long cols : {17L, 48L, 256L})
    Check({B::kAdd, kFloat, kFloat, kFloat, {33, cols}, {cols}}, 42);
  Check({B::kMul, kHalf, kHalf, kHalf, {9, 512}, {512}}, 43);
  for (const auto& sizes :
       std::vector<std::vector<long>>{{64, 48}, {40, 24}, {33, 17}, {3, 32, 16}})
    Check({B::kAdd, kFloat, kFloat, kFloat, sizes, sizes, Layout::kContiguous, Layout::kTransposed},
          44);
  Check({B::kAdd, kHalf, kHalf, kHalf, {32, 48}, {32, 48}, Layout::kTransposed}, 45);
  Check({B::kAdd, kFloat, kFloat, kFloat, {48, 32}, {32}, Layout::kTransposed}, 46);
}

// Float ADD, SUB, MUL, DIV, FMAX, FMIN and COPYSIGN on CPU devices: whole
// 16-element vectors then the rest, flat and per row (broadcast, rank 3),
// with plain and streaming stores.
TEST(BinaryTest, CpuSixteenLaneForms) {
  for (bool stream : {false, true}) {
    std::optional<StreamStoresForTesting> streaming;
    if (stream) streaming.emplace();
    for (B op : {B::kAdd, B::kSub, B::kDiv, B::kFmax, B::kCopysign})
      Check({op, kFloat, kFloat, kFloat, {4097}, {4097}}, 47);
    Check({B::kMul, kFloat, kFloat, kFloat, {16}, {16}}, 48);
    Check({B::kFmin, kFloat, kFloat, kFloat, {5, 37}, {37}}, 49);
    Check({B::kAdd, kFloat, kFloat, kFloat, {3, 4, 32}, {3, 1, 32}}, 50);
  }
}

// The GPU variants: spread lanes over every length, fixed groups over ragged
// and broadcast ranges (x smaller than a group, several groups along y, 6-D).
TEST(BinaryTest, GpuVariants) {
  const GpuPathsForTesting gpu;
  for (long n : {1L, 3L, 4L, 5L, 7L, 1000003L})
    Check({B::kAdd, kFloat, kFloat, kFloat, {n}, {n}}, 70);
  Check({B::kMul, kHalf, kHalf, kHalf, {1001}, {1001}}, 71);
  Check({B::kMul, kInt8, kInt8, kInt8, {5}, {5}, Layout::kContiguous, Layout::kContiguous, -20, 20},
        72);
  Check({B::kAdd, kFloat, kFloat, kFloat, {300, 3}, {3}}, 73);
  Check({B::kAdd, kFloat, kFloat, kFloat, {517, 300}, {300}}, 74);
  Check({B::kAdd, kFloat, kFloat, kFloat, {37, 41}, {37, 41}, Layout::kTransposed}, 75);
  Check({B::kAdd, kFloat, kFloat, kFloat, {2, 3, 2, 3, 2, 5}, {3, 1, 3, 2, 1}, Layout::kStepped},
        76);
}

TEST(BinaryTest, Errors) {
  Operand a = OutputOperand({3, 4}, kFloat), b = OutputOperand({5}, kFloat);
  Operand i = OutputOperand({3, 4}, kInt32), out = OutputOperand({3, 4}, kFloat);
  auto create = [](B op, const Operand& x, const Operand& y, Operand& o) {
    return Binary::Create(TestQueue(), BinaryOption{op}, x.opt, x.buf, y.opt, y.buf, o.opt, o.buf);
  };
  try {
    create(B::kAdd, a, b, out);
    ADD_FAILURE();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Binary: cannot broadcast [3, 4] with [5]");
  }
  Operand wrong = OutputOperand({4, 3}, kFloat);
  EXPECT_THROW(create(B::kAdd, a, a, wrong), std::runtime_error);
  EXPECT_THROW(create(B::kBitwiseAnd, a, a, out), std::invalid_argument);
  EXPECT_THROW(create(B::kBitwiseLeftShift, i, a, out), std::invalid_argument);
  EXPECT_THROW(create(B::kAdd, a, a, i), std::invalid_argument);  // float into int
  EXPECT_THROW(create(static_cast<B>(77), a, a, out), std::invalid_argument);
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
