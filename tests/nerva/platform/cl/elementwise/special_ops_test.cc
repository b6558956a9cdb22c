// Logit, Digamma, Gcd and the sequence generators ARange, Linspace and Eye.

#include <cmath>
#include <numeric>
#include <stdexcept>

#include "nerva/platform/cl/elementwise/ew_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

// psi(x) in double: recurrence up to 20, then the asymptotic series.
double Digamma(double x) {
  if (x == 0) return std::copysign(INFINITY, -x);
  if (x < 0) {
    if (x == std::floor(x)) return NAN;
    return Digamma(1 - x) - M_PI / std::tan(M_PI * x);
  }
  double result = 0;
  while (x < 20) result -= 1 / x++;
  const double z = 1 / (x * x);
  return result + std::log(x) - 0.5 / x -
         z * (1.0 / 12 - z * (1.0 / 120 - z * (1.0 / 252 - z * (1.0 / 240 - z / 132))));
}

std::vector<double> RunUnaryLike(const std::function<Kernel(const Operand&, Operand&)>& create,
                                 const Operand& in, DataType out_type) {
  Operand out = OutputOperand(in.opt.shape.sizes(), out_type);
  TestQueue().Enqueue(create(in, out));
  return ReadBack(out);
}

TEST(LogitTest, WithAndWithoutEps) {
  for (float eps : {-1.0f, 0.2f}) {
    auto create = [eps](const Operand& in, Operand& out) {
      return Logit::Create(TestQueue(), LogitOption{eps}, in.opt, in.buf, out.opt, out.buf);
    };
    for (DataType t : {kFloat, kHalf}) {
      const Operand in = RandomOperand({1003}, t, 0.01, 0.99, 1);
      std::vector<double> expected(in.values.size());
      for (size_t i = 0; i < expected.size(); ++i) {
        double z = in.values[i];
        if (eps >= 0) z = std::clamp(z, double(eps), 1 - double(eps));
        expected[i] = Quantize(std::log(z / (1 - z)), t);
      }
      ExpectClose(RunUnaryLike(create, in, t), expected, t == kHalf ? 2e-3 : 2e-5, 1e-5,
                  StrCat("logit ", t, " eps ", eps));
    }
    // Integers give float; NaN stays NaN.
    const Operand ints = MakeOperand({3}, kInt32, {0, 1, 2});
    const std::vector<double> got = RunUnaryLike(create, ints, kFloat);
    if (eps < 0) {
      EXPECT_EQ(got[0], -INFINITY);
    }
    EXPECT_TRUE(std::isnan(RunUnaryLike(create, MakeOperand({1}, kFloat, {NAN}), kFloat)[0]));
  }
}

TEST(DigammaTest, Float) {
  auto create = [](const Operand& in, Operand& out) {
    return Digamma::Create(TestQueue(), in.opt, in.buf, out.opt, out.buf);
  };
  Operand in = RandomOperand({1003}, kFloat, -6, 30, 2);
  in.values[0] = 0, in.values[1] = -3, in.values[2] = 10, in.values[3] = 1e-3;
  in = MakeOperand({1003}, kFloat, in.values);
  std::vector<double> expected(in.values.size());
  for (size_t i = 0; i < expected.size(); ++i) expected[i] = Digamma(in.values[i]);
  ExpectClose(RunUnaryLike(create, in, kFloat), expected, 1e-4, 1e-4, "digamma");
  const Operand ints = MakeOperand({3}, kInt32, {1, 2, -1});
  const std::vector<double> got = RunUnaryLike(create, ints, kFloat);
  EXPECT_NEAR(got[0], -0.5772156649, 1e-6);
  EXPECT_TRUE(std::isnan(got[2]));
}

TEST(GcdTest, IntegerTypesAndBroadcast) {
  for (DataType t : {kInt32, kInt8, kInt64}) {
    Operand a = RandomOperand({4, 1, 5}, t, -100, 100, 3), b = RandomOperand({3, 1}, t, -60, 60, 4);
    Operand out = OutputOperand({4, 3, 5}, t);
    TestQueue().Enqueue(Gcd::Create(TestQueue(), a.opt, a.buf, b.opt, b.buf, out.opt, out.buf));
    const auto expected =
        BroadcastReference({4, 3, 5}, {&a, &b}, [t](const std::vector<double>& v) {
          return Quantize(
              static_cast<double>(std::gcd(static_cast<long>(v[0]), static_cast<long>(v[1]))), t);
        });
    ExpectClose(ReadBack(out), expected, 0, 0, StrCat("gcd ", t));
  }
  Operand f = OutputOperand({2}, kFloat);
  EXPECT_THROW(Gcd::Create(TestQueue(), f.opt, f.buf, f.opt, f.buf, f.opt, f.buf),
               std::invalid_argument);
}

TEST(ARangeTest, ValuesTypesAndErrors) {
  struct Case {
    double start, end, step;
    DataType type;
  } cases[] = {{0, 10, 1, kFloat}, {-3, 4.5, 0.25, kFloat}, {5, -5, -3, kInt32},
               {1, 2, 0.1, kHalf}, {0, 1000003, 1, kFloat}, {0, 0, 1, kFloat}};
  for (const Case& c : cases) {
    const long n = static_cast<long>(std::ceil((c.end - c.start) / c.step));
    Operand out = OutputOperand({n}, c.type);
    TestQueue().Enqueue(
        ARange::Create(TestQueue(), ARangeOption{c.start, c.end, c.step}, out.opt, out.buf));
    std::vector<double> expected(static_cast<size_t>(n));
    for (long i = 0; i < n; ++i) expected[i] = Quantize(c.start + i * c.step, c.type);
    ExpectClose(ReadBack(out), expected, 0, 0, StrCat("arange ", c.start, " ", c.end, " ", c.step));
  }
  Operand out = OutputOperand({5}, kFloat);
  EXPECT_THROW(ARange::Create(TestQueue(), ARangeOption{0, 5, 0}, out.opt, out.buf),
               std::invalid_argument);
  EXPECT_THROW(ARange::Create(TestQueue(), ARangeOption{0, 5, -1}, out.opt, out.buf),
               std::invalid_argument);
  EXPECT_THROW(ARange::Create(TestQueue(), ARangeOption{0, 6, 1}, out.opt, out.buf),
               std::runtime_error);
  // A stepped output view.
  Operand view = OutputOperand({5}, kFloat);
  view.opt = TensorOption{Shape({3}, std::vector<long>{2}), kFloat};
  TestQueue().Enqueue(ARange::Create(TestQueue(), ARangeOption{1, 4, 1}, view.opt, view.buf));
  EXPECT_EQ(ReadBack(view), (std::vector<double>{1, 2, 3}));
}

TEST(LinspaceTest, TwoSidedEvaluation) {
  for (DataType t : {kFloat, kInt32}) {
    for (long steps : {1L, 2L, 7L, 1001L}) {
      const double start = -3.5, end = 10.25;
      Operand out = OutputOperand({steps}, t);
      TestQueue().Enqueue(
          Linspace::Create(TestQueue(), LinspaceOption{start, end, steps}, out.opt, out.buf));
      std::vector<double> expected(static_cast<size_t>(steps));
      const double step = steps > 1 ? (end - start) / (steps - 1) : 0;
      for (long i = 0; i < steps; ++i) {
        const double v = i < steps / 2 ? start + step * i : end - step * (steps - 1 - i);
        expected[i] = t == kInt32 ? std::trunc(v) : Quantize(v, t);
      }
      ExpectClose(ReadBack(out), expected, t == kHalf ? 1e-3 : 1e-6, 1e-5,
                  StrCat("linspace ", t, " ", steps));
    }
  }
}

TEST(EyeTest, ShapesAndTypes) {
  for (auto nm : {std::pair<long, long>{3, 3}, {2, 5}, {7, 1}}) {
    for (DataType t : {kFloat, kBool}) {
      Operand out = OutputOperand({nm.first, nm.second}, t);
      TestQueue().Enqueue(
          Eye::Create(TestQueue(), EyeOption{nm.first, nm.second}, out.opt, out.buf));
      std::vector<double> expected;
      for (long i = 0; i < nm.first; ++i) {
        for (long j = 0; j < nm.second; ++j) expected.push_back(i == j);
      }
      EXPECT_EQ(ReadBack(out), expected) << nm.first << "x" << nm.second << " " << t;
    }
  }
  Operand out = OutputOperand({3, 3}, kFloat);
  EXPECT_THROW(Eye::Create(TestQueue(), EyeOption{3, 4}, out.opt, out.buf), std::runtime_error);
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
