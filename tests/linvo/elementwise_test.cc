#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <regex>

#include "test_util.h"

namespace {

using namespace linvo;
using linvo_test::RandomMatrix;
using linvo_test::Values;

using BinaryFn = Matrix (*)(const Matrix&, const Matrix&);

struct BinaryCase {
  const char* name;
  BinaryFn fn;
  std::function<double(double, double)> ref;
};

double RefDiv(double x, double y, DataType type) {
  if (TypeTraitsHelper::IsIntegral(type, true)) return y == 0 ? 0 : std::trunc(x / y);
  return x / y;
}

// Reference: broadcast by index arithmetic, in double.
std::vector<double> BroadcastReference(const Matrix& a, const Matrix& b, const Shape& out,
                                       const std::function<double(double, double)>& f) {
  std::vector<double> va = Values(a), vb = Values(b), result(out.size());
  Shape pa = a.shape().ExpandTo(0, out.ndim()), pb = b.shape().ExpandTo(0, out.ndim());
  for (int64_t i = 0; i < out.size(); ++i) {
    auto idx = linvo_test::Unravel(i, out.dims());
    auto ia = idx, ib = idx;
    for (size_t d = 0; d < idx.size(); ++d) {
      if (pa.dims()[d] == 1) ia[d] = 0;
      if (pb.dims()[d] == 1) ib[d] = 0;
    }
    result[i] = f(va[linvo_test::Ravel(ia, pa.dims())], vb[linvo_test::Ravel(ib, pb.dims())]);
  }
  return result;
}

TEST(BinaryElementWise, BroadcastingAgainstReferenceForEveryType) {
  const std::pair<Shape, Shape> shapes[] = {
      {{4, 5}, {4, 5}}, {{3, 1, 5}, {4, 1}}, {{2, 3, 4}, {4}},          {{1}, {2, 3}},
      {{6, 1}, {1, 7}}, {{}, {3, 2}},        {{2, 1, 3, 1}, {5, 1, 4}},
  };
  for (DataType type : linvo_test::AllTypes()) {
    DataType result_type = TypePromote(type, type);
    const BinaryCase cases[] = {
        {"Add", Add, [](double x, double y) { return x + y; }},
        {"Sub", Sub, [](double x, double y) { return x - y; }},
        {"Mul", Mul, [](double x, double y) { return x * y; }},
        {"Div", Div, [&](double x, double y) { return RefDiv(x, y, result_type); }},
    };
    for (const BinaryCase& c : cases) {
      for (const auto& [sa, sb] : shapes) {
        bool positive = !TypeTraitsHelper::IsSigned(type);
        bool divisor = std::string(c.name) == "Div" && !TypeTraitsHelper::IsIntegral(type, true);
        Matrix a = RandomMatrix(sa, type, positive),
               b = RandomMatrix(sb, type, positive || divisor);
        Matrix out = c.fn(a, b);
        ASSERT_EQ(out.dtype(), result_type);
        ASSERT_EQ(out.shape(), BroadcastShape(sa, sb));
        // Packed float inputs are exact in float; the reference rounds once at the end.
        std::vector<double> expected = BroadcastReference(a, b, out.shape(), c.ref);
        std::vector<double> actual = Values(out);
        for (size_t i = 0; i < expected.size(); ++i) {
          double e = linvo_test::RoundTo(result_type, expected[i]);
          ASSERT_NEAR(actual[i], e, linvo_test::Tolerance(result_type, e))
              << c.name << " " << type << " " << sa << sb << " at " << i;
        }
      }
    }
  }
}

TEST(BinaryElementWise, IntegerDivisionByZeroGivesZero) {
  Matrix a = Ones({3}, kInt32), b(Shape{3}, kInt32);
  b.data<int32_t>()[1] = 2;
  b.data<int32_t>()[2] = -1;
  EXPECT_EQ(Values(a * Ones({3}, kInt32).Fill_(7L) / b), (std::vector<double>{0, 3, -7}));
}

TEST(BinaryElementWise, MixedTypesPromote) {
  Matrix a = RandomMatrix({3, 4}, kInt8), b = RandomMatrix({4}, kInt8);
  EXPECT_EQ((a + b).dtype(), kInt32);
  Matrix h = RandomMatrix({2, 3}, kHalf), bf = RandomMatrix({2, 3}, kBFloat);
  Matrix sum = Add(h, bf);
  EXPECT_EQ(sum.dtype(), kBFloat);
  std::vector<double> vh = Values(h), vb = Values(bf), vs = Values(sum);
  for (size_t i = 0; i < vs.size(); ++i) EXPECT_NEAR(vs[i], vh[i] + vb[i], 0.05);
  Matrix u = RandomMatrix({5}, kUInt32), f = RandomMatrix({5}, kFloat);
  Matrix prod = u * f;
  EXPECT_EQ(prod.dtype(), kFloat);
  std::vector<double> vu = Values(u), vf = Values(f), vp = Values(prod);
  for (size_t i = 0; i < vp.size(); ++i) EXPECT_NEAR(vp[i], vu[i] * vf[i], 1e-5);
}

TEST(BinaryElementWise, WrongOutputTypeLogsAndStillWrites) {
  Matrix a = RandomMatrix({2, 3}, kFloat), b = RandomMatrix({2, 3}, kFloat);
  Matrix out(Shape{2, 3}, kDouble);
  testing::internal::CaptureStdout();
  Mul(a, b, out);
  std::string log = testing::internal::GetCapturedStdout();
  EXPECT_TRUE(
      std::regex_match(log, std::regex(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\] \[E\] \[LINVO\] )"
                                       R"(Check 'out\.dtype\(\) == convert_type' fail!\n)")))
      << log;
  std::vector<double> va = Values(a), vb = Values(b), vo = Values(out);
  for (size_t i = 0; i < vo.size(); ++i) EXPECT_NEAR(vo[i], va[i] * vb[i], 1e-5);
}

TEST(BinaryElementWise, OperatorsAndCompoundForms) {
  Matrix a = RandomMatrix({3, 4}, kFloat), b = RandomMatrix({4}, kFloat, true);
  std::vector<double> va = Values(a), vb = Values(b);
  Matrix alias = a;
  a += b;  // same shape and type: written in place, visible through the alias
  std::vector<double> v = Values(alias);
  for (size_t i = 0; i < v.size(); ++i) EXPECT_NEAR(v[i], va[i] + vb[i % 4], 1e-5);
  a -= b;
  a *= b;
  a /= b;
  v = Values(a);
  for (size_t i = 0; i < v.size(); ++i) EXPECT_NEAR(v[i], va[i], 1e-4);
  Matrix small = RandomMatrix({4}, kInt8);
  small += a;  // result shape and type differ: the handle is rebound
  EXPECT_EQ(small.dtype(), kFloat);
  EXPECT_EQ(small.shape(), (Shape{3, 4}));
  EXPECT_EQ(Values(a - a), std::vector<double>(12, 0.0));
}

struct UnaryCase {
  const char* name;
  Matrix (*fn)(const Matrix&);
  Matrix& (Matrix::*in_place)();
  double (*ref)(double);
};

double RefSigmoid(double x) {
  return 1 / (1 + std::exp(-x));
}
double RefGelu(double x) {
  return 0.5 * x * (1 + std::tanh(0.7978845608 * (x + 0.044715 * x * x * x)));
}

TEST(UnaryElementWise, EveryFunctionForEveryType) {
  const UnaryCase cases[] = {
      {"Exp", Exp, &Matrix::Exp_, [](double x) { return std::exp(x); }},
      {"Sqrt", Sqrt, &Matrix::Sqrt_, [](double x) { return std::sqrt(x); }},
      {"Tanh", Tanh, &Matrix::Tanh_, [](double x) { return std::tanh(x); }},
      {"Sigmoid", Sigmoid, &Matrix::Sigmoid_, RefSigmoid},
      {"Relu", Relu, &Matrix::Relu_, [](double x) { return x > 0 ? x : 0; }},
      {"Relu6", Relu6, &Matrix::Relu6_, [](double x) { return std::min(std::max(x, 0.0), 6.0); }},
      {"Gelu", Gelu, &Matrix::Gelu_, RefGelu},
      {"Negative", Negative, &Matrix::Negative_, [](double x) { return -x; }},
  };
  for (DataType type : linvo_test::AllTypes()) {
    for (const UnaryCase& c : cases) {
      bool positive = std::string(c.name) == "Sqrt" || !TypeTraitsHelper::IsSigned(type);
      Matrix in = RandomMatrix({3, 7}, type, positive);
      Matrix out = c.fn(in);
      ASSERT_EQ(out.dtype(), type);
      ASSERT_EQ(out.shape(), in.shape());
      std::vector<double> vin = Values(in), vout = Values(out);
      for (size_t i = 0; i < vin.size(); ++i) {
        double e = c.ref(vin[i]);
        if (!linvo_test::Representable(type, e)) continue;
        if (TypeTraitsHelper::IsIntegral(type, false)) {
          ASSERT_NEAR(vout[i], std::trunc(e), 1) << c.name << " " << type;  // float rounding
        } else {
          e = linvo_test::RoundTo(type, e);
          ASSERT_NEAR(vout[i], e, linvo_test::Tolerance(type, e)) << c.name << " " << type;
        }
      }
      Matrix copy = in.Clone();
      (copy.*c.in_place)();
      EXPECT_TRUE(copy == out) << c.name << " in place " << type;
    }
  }
}

TEST(UnaryElementWise, PowerAndSpecialCases) {
  Matrix in = RandomMatrix({4, 4}, kFloat, true);
  std::vector<double> v = Values(in), p = Values(Power(in, 1.5f));
  for (size_t i = 0; i < v.size(); ++i) EXPECT_NEAR(p[i], std::pow(v[i], 1.5), 1e-5 * p[i]);
  // A double is computed through float.
  Matrix one = Ones({1}, kDouble);
  EXPECT_EQ(one.Exp().data<double>()[0], 2.7182817459106445);
  // Bool stores 1 for any non-zero result.
  Matrix flags(Shape{4}, kBool);
  uint8_t raw[] = {1, 0, 1, 0};
  flags.Load(raw);
  EXPECT_EQ(Values(flags.Tanh()), (std::vector<double>{1, 0, 1, 0}));
  EXPECT_EQ(Values(flags.Negative()), (std::vector<double>{1, 0, 1, 0}));
  EXPECT_EQ(Values(flags.Sigmoid()), (std::vector<double>{1, 1, 1, 1}));
  // Zero elements: nothing happens.
  Matrix empty(Shape{0, 3}, kFloat);
  EXPECT_EQ(empty.Exp().size(), 0);
  empty.Fill_(2.0);
}

}  // namespace
