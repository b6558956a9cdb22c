// Unary on the OpenCL device against double-precision references.

#include <cmath>
#include <stdexcept>

#include "nerva/platform/cl/elementwise/ew_test_util.h"
#include "nerva/platform/cl/kernel/elementwise/unary.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

struct UnaryCase {
  UnaryType op;
  double lo, hi;  // input range
  std::function<double(double)> fn;
};

double Erfinv(double y) {  // Newton on erf from a close start
  if (std::fabs(y) >= 1) return std::fabs(y) == 1 ? std::copysign(INFINITY, y) : NAN;
  double x = 0;
  for (int i = 0; i < 60; ++i) x -= (std::erf(x) - y) / (2 / std::sqrt(M_PI) * std::exp(-x * x));
  return x;
}

const std::vector<UnaryCase>& Cases() {
  static const std::vector<UnaryCase> cases = {
      {UnaryType::kAbs, -5, 5, [](double x) { return std::fabs(x); }},
      {UnaryType::kNeg, -5, 5, [](double x) { return -x; }},
      {UnaryType::kExp, -20, 20, [](double x) { return std::exp(x); }},
      {UnaryType::kExp2, -20, 20, [](double x) { return std::exp2(x); }},
      {UnaryType::kExpm1, -3, 3, [](double x) { return std::expm1(x); }},
      {UnaryType::kLog, 0.01, 50, [](double x) { return std::log(x); }},
      {UnaryType::kLog2, 0.01, 50, [](double x) { return std::log2(x); }},
      {UnaryType::kLog10, 0.01, 50, [](double x) { return std::log10(x); }},
      {UnaryType::kLog1p, -0.9, 5, [](double x) { return std::log1p(x); }},
      {UnaryType::kSqrt, 0, 50, [](double x) { return std::sqrt(x); }},
      {UnaryType::kRsqrt, 0.01, 50, [](double x) { return 1 / std::sqrt(x); }},
      {UnaryType::kSin, -6, 6, [](double x) { return std::sin(x); }},
      {UnaryType::kCos, -6, 6, [](double x) { return std::cos(x); }},
      {UnaryType::kTan, -1.2, 1.2, [](double x) { return std::tan(x); }},
      {UnaryType::kAsin, -0.99, 0.99, [](double x) { return std::asin(x); }},
      {UnaryType::kAcos, -0.99, 0.99, [](double x) { return std::acos(x); }},
      {UnaryType::kAtan, -5, 5, [](double x) { return std::atan(x); }},
      {UnaryType::kSinh, -5, 5, [](double x) { return std::sinh(x); }},
      {UnaryType::kCosh, -5, 5, [](double x) { return std::cosh(x); }},
      {UnaryType::kTanh, -5, 5, [](double x) { return std::tanh(x); }},
      {UnaryType::kAsinh, -5, 5, [](double x) { return std::asinh(x); }},
      {UnaryType::kAcosh, 1, 6, [](double x) { return std::acosh(x); }},
      {UnaryType::kAtanh, -0.95, 0.95, [](double x) { return std::atanh(x); }},
      {UnaryType::kErf, -3, 3, [](double x) { return std::erf(x); }},
      {UnaryType::kErfc, -3, 3, [](double x) { return std::erfc(x); }},
      {UnaryType::kErfinv, -0.99, 0.99, Erfinv},
      {UnaryType::kCeil, -5, 5, [](double x) { return std::ceil(x); }},
      {UnaryType::kFloor, -5, 5, [](double x) { return std::floor(x); }},
      {UnaryType::kRound, -5, 5, [](double x) { return std::nearbyint(x); }},
      {UnaryType::kTrunc, -5, 5, [](double x) { return std::trunc(x); }},
      {UnaryType::kFrac, -5, 5, [](double x) { return x - std::trunc(x); }},
      {UnaryType::kSign, -5, 5, [](double x) { return double((x > 0) - (x < 0)); }},
      {UnaryType::kReciprocal, 0.1, 5, [](double x) { return 1 / x; }},
      {UnaryType::kSquare, -5, 5, [](double x) { return x * x; }},
      {UnaryType::kLgamma, 0.1, 8, [](double x) { return std::lgamma(x); }},
      {UnaryType::kLogicalNot, -1, 1, [](double x) { return double(x == 0); }},
      {UnaryType::kIsNan, -1, 1, [](double x) { return double(std::isnan(x)); }},
      {UnaryType::kIsInf, -1, 1, [](double x) { return double(std::isinf(x)); }},
      {UnaryType::kIsFinite, -1, 1, [](double x) { return double(std::isfinite(x)); }},
  };
  return cases;
}

bool IsPredicate(UnaryType op) {
  return op == UnaryType::kLogicalNot || op == UnaryType::kIsNan || op == UnaryType::kIsInf ||
         op == UnaryType::kIsFinite;
}

// Runs `op` on `in` into a contiguous output of `out_type`.
std::vector<double> RunUnary(UnaryType op, const Operand& in, DataType out_type) {
  Operand out = OutputOperand(in.opt.shape.sizes(), out_type);
  TestQueue().Enqueue(
      Unary::Create(TestQueue(), UnaryOption{op}, in.opt, in.buf, out.opt, out.buf));
  return ReadBack(out);
}

void CheckCase(const UnaryCase& c, DataType dtype, const std::vector<long>& sizes, Layout layout,
               unsigned seed) {
  Operand in = RandomOperand(sizes, dtype, c.lo, c.hi, seed, layout);
  if (IsPredicate(c.op) && !in.values.empty()) {  // special values
    in = MakeOperand(sizes, dtype, in.values, layout);
  }
  const DataType out_type = IsPredicate(c.op) ? kBool : dtype;
  std::vector<double> expected(in.values.size());
  for (size_t i = 0; i < expected.size(); ++i) expected[i] = Quantize(c.fn(in.values[i]), out_type);
  const double rtol = dtype == kHalf ? 2e-3 : 2e-5;
  ExpectClose(RunUnary(c.op, in, out_type), expected, rtol, rtol * 0.1,
              StrCat(UnaryKernel::OpName(c.op), " ", dtype));
}

// Every operator on float, over a length with a leftover vector.
TEST(UnaryTest, EveryOperatorOnFloat) {
  for (const UnaryCase& c : Cases()) CheckCase(c, kFloat, {1003}, Layout::kContiguous, 1);
}

// The operators with a 16-lane form, storing past the caches.
TEST(UnaryTest, StreamedSixteenLaneForms) {
  const StreamStoresForTesting streaming;
  for (const UnaryCase& c : Cases()) {
    if (UnaryKernel::Spec(c.op, kFloat).op16) {
      CheckCase(c, kFloat, {1003}, Layout::kContiguous, 5);
    }
  }
}

TEST(UnaryTest, SpecialFloatValues) {
  const std::vector<double> values = {NAN, INFINITY, -INFINITY, 0.0, -0.0, 2.5, -2.5, 0.5, 1.5, -7};
  const Operand in = MakeOperand({10}, kFloat, values);
  EXPECT_EQ(RunUnary(UnaryType::kIsNan, in, kBool),
            (std::vector<double>{1, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(RunUnary(UnaryType::kIsInf, in, kBool),
            (std::vector<double>{0, 1, 1, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(RunUnary(UnaryType::kIsFinite, in, kBool),
            (std::vector<double>{0, 0, 0, 1, 1, 1, 1, 1, 1, 1}));
  // Round half to even; sign(NaN) is 0.
  const std::vector<double> rounded = RunUnary(UnaryType::kRound, in, kFloat);
  EXPECT_EQ(std::vector<double>(rounded.begin() + 3, rounded.end()),
            (std::vector<double>{0, 0, 2, -2, 0, 2, -7}));
  EXPECT_EQ(RunUnary(UnaryType::kSign, in, kFloat)[0], 0.0);
}

// Types: half; integers keep their type or compute in float; bool.
TEST(UnaryTest, TypeMatrix) {
  const auto& cases = Cases();
  auto find = [&](UnaryType op) -> const UnaryCase& {
    return cases[static_cast<size_t>(op) < 35 ? static_cast<size_t>(op) : 0];
  };
  CheckCase(find(UnaryType::kExp), kHalf, {1001}, Layout::kContiguous, 2);
  CheckCase(find(UnaryType::kAbs), kHalf, {5}, Layout::kContiguous, 3);
  for (DataType t : {kInt32, kInt8}) {
    CheckCase({UnaryType::kAbs, -100, 100, [](double x) { return std::fabs(x); }}, t, {1001},
              Layout::kContiguous, 4);
  }
  // int8 wraps like PyTorch: -(-128) is -128, 12 * 12 is -112.
  const Operand edge = MakeOperand({3}, kInt8, {-128, 12, 127});
  EXPECT_EQ(RunUnary(UnaryType::kNeg, edge, kInt8), (std::vector<double>{-128, -12, -127}));
  EXPECT_EQ(RunUnary(UnaryType::kSquare, edge, kInt8), (std::vector<double>{0, -112, 1}));
  // Integers into the float functions give float.
  const Operand ints = MakeOperand({4}, kInt32, {-2, 0, 1, 3});
  const std::vector<double> e = RunUnary(UnaryType::kExp, ints, kFloat);
  for (size_t i = 0; i < 4; ++i) EXPECT_NEAR(e[i], std::exp(ints.values[i]), 1e-5 * e[i]);
  EXPECT_EQ(RunUnary(UnaryType::kBitwiseNot, MakeOperand({3}, kInt8, {0, 5, -1}), kInt8),
            (std::vector<double>{-1, -6, 0}));
  EXPECT_EQ(RunUnary(UnaryType::kBitwiseNot, MakeOperand({3}, kBool, {0, 1, 1}), kBool),
            (std::vector<double>{1, 0, 0}));
  EXPECT_EQ(RunUnary(UnaryType::kLogicalNot, MakeOperand({3}, kInt32, {0, 5, -1}), kBool),
            (std::vector<double>{1, 0, 0}));
  // A bool result may be written into a float output.
  EXPECT_EQ(RunUnary(UnaryType::kLogicalNot, MakeOperand({2}, kFloat, {0, 0.5}), kFloat),
            (std::vector<double>{1, 0}));
}

// Layouts: lengths with every leftover, transposed, stepped, 6-D and empty.
TEST(UnaryTest, Layouts) {
  const UnaryCase neg = {UnaryType::kNeg, -5, 5, [](double x) { return -x; }};
  for (long n : {1L, 3L, 4L, 5L, 1000003L}) CheckCase(neg, kFloat, {n}, Layout::kContiguous, 6);
  CheckCase(neg, kFloat, {33, 17}, Layout::kTransposed, 7);
  CheckCase(neg, kFloat, {5, 9}, Layout::kStepped, 8);
  CheckCase(neg, kFloat, {2, 3, 2, 3, 2, 5}, Layout::kTransposed, 9);
  CheckCase(neg, kFloat, {2, 3, 2, 3, 2, 5}, Layout::kStepped, 10);
  CheckCase(neg, kInt8, {3, 4, 5}, Layout::kTransposed, 11);
  // Empty: nothing runs, nothing fails.
  Operand in = OutputOperand({0, 3}, kFloat), out = OutputOperand({0, 3}, kFloat);
  TestQueue().Enqueue(
      Unary::Create(TestQueue(), UnaryOption{UnaryType::kNeg}, in.opt, in.buf, out.opt, out.buf));
}

TEST(UnaryTest, InPlaceAnyLength) {
  for (long n : {5L, 1001L}) {
    Operand x = RandomOperand({n}, kFloat, -3, 3, 12);
    TestQueue().Enqueue(
        Unary::Create(TestQueue(), UnaryOption{UnaryType::kNeg}, x.opt, x.buf, x.opt, x.buf));
    const std::vector<double> got = ReadBack(x);
    for (size_t i = 0; i < got.size(); ++i) ASSERT_EQ(got[i], -x.values[i]) << n << " " << i;
  }
}

TEST(UnaryTest, GpuVariantsInPlaceAndStrided) {
  const GpuPathsForTesting gpu;
  for (long n : {1L, 5L, 1001L}) {
    Operand x = RandomOperand({n}, kFloat, -3, 3, 13);
    TestQueue().Enqueue(
        Unary::Create(TestQueue(), UnaryOption{UnaryType::kNeg}, x.opt, x.buf, x.opt, x.buf));
    const std::vector<double> got = ReadBack(x);
    for (size_t i = 0; i < got.size(); ++i) ASSERT_EQ(got[i], -x.values[i]) << n << " " << i;
  }
  const UnaryCase neg = {UnaryType::kNeg, -5, 5, [](double x) { return -x; }};
  CheckCase(neg, kFloat, {33, 17}, Layout::kTransposed, 14);
  CheckCase(neg, kInt8, {3, 4, 5}, Layout::kStepped, 15);
}

TEST(UnaryTest, Errors) {
  Operand f = OutputOperand({2, 3}, kFloat), i = OutputOperand({2, 3}, kInt32);
  Operand b = OutputOperand({2, 3}, kBool), other = OutputOperand({3, 2}, kFloat);
  auto create = [](UnaryType op, const Operand& in, Operand& out) {
    return Unary::Create(TestQueue(), UnaryOption{op}, in.opt, in.buf, out.opt, out.buf);
  };
  EXPECT_THROW(create(UnaryType::kBitwiseNot, f, f), std::invalid_argument);
  EXPECT_THROW(create(UnaryType::kFrac, i, i), std::invalid_argument);
  EXPECT_THROW(create(UnaryType::kNeg, b, b), std::invalid_argument);
  EXPECT_THROW(create(UnaryType::kExp, i, i), std::invalid_argument);  // float into int
  EXPECT_THROW(create(UnaryType::kExp, f, other), std::runtime_error);
  EXPECT_THROW(create(static_cast<UnaryType>(99), f, f), std::invalid_argument);
  try {
    create(UnaryType::kNeg, f, other);
    ADD_FAILURE();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Unary: output shape [3, 2] is not the broadcast shape [2, 3]");
  }
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
