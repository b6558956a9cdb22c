#include <gtest/gtest.h>

#include <cmath>
#include <optional>

#include "test_util.h"

namespace {

using namespace linvo;
using linvo_test::RandomMatrix;
using linvo_test::Values;

// Reference reduction over one axis (or everything) of row-major values.
std::vector<double> ReduceReference(const std::vector<double>& v, const Dims& dims,
                                    std::optional<int> axis,
                                    double (*f)(const std::vector<double>&)) {
  if (!axis) return {f(v)};
  int a = *axis < 0 ? *axis + static_cast<int>(dims.size()) : *axis;
  int64_t outer = 1, inner = 1;
  for (int d = 0; d < a; ++d) outer *= dims[d];
  for (size_t d = a + 1; d < dims.size(); ++d) inner *= dims[d];
  std::vector<double> result;
  for (int64_t o = 0; o < outer; ++o) {
    for (int64_t i = 0; i < inner; ++i) {
      std::vector<double> group;
      for (int64_t k = 0; k < dims[a]; ++k) group.push_back(v[(o * dims[a] + k) * inner + i]);
      result.push_back(f(group));
    }
  }
  return result;
}

double RefSum(const std::vector<double>& g) {
  double s = 0;
  for (double x : g) s += x;
  return s;
}
double RefAbsSum(const std::vector<double>& g) {
  double s = 0;
  for (double x : g) s += std::fabs(x);
  return s;
}
double RefMax(const std::vector<double>& g) {
  return *std::max_element(g.begin(), g.end());
}
double RefMean(const std::vector<double>& g) {
  return RefSum(g) / g.size();
}
double RefStd(const std::vector<double>& g) {
  double m = RefMean(g), s = 0;
  for (double x : g) s += (x - m) * (x - m);
  return std::sqrt(s / g.size());
}
double RefCount(const std::vector<double>& g) {
  return static_cast<double>(std::count_if(g.begin(), g.end(), [](double x) { return x != 0; }));
}

Shape ExpectedShape(const Shape& in, std::optional<int> axis, bool keepdims) {
  if (!axis) return keepdims ? Shape(Dims(in.ndim(), 1)) : Shape{1};
  int a = GetRealAxis(*axis, in.ndim());
  Dims dims = in.dims();
  if (keepdims) {
    dims[a] = 1;
  } else {
    dims.erase(dims.begin() + a);
  }
  return Shape(dims);
}

struct ReductionCase {
  const char* name;
  Matrix (*fn)(const Matrix&, std::optional<int>, bool);
  double (*ref)(const std::vector<double>&);
  bool floating_only;
};

TEST(Reduction, AxesAndKeepDimsAgainstReference) {
  const ReductionCase cases[] = {
      {"Sum", Sum, RefSum, false},
      {"Max", Max, RefMax, false},
      {"Mean", Mean, RefMean, false},
      {"Std", Std, RefStd, true},
      {"CountNonzero", CountNonzero, RefCount, false},
  };
  const Shape shape{3, 4, 37};
  const std::optional<int> axes[] = {std::nullopt, 0, 1, 2, -1, -3};
  for (DataType type : linvo_test::AllTypes()) {
    Matrix in = RandomMatrix(shape, type);
    std::vector<double> v = Values(in);
    for (const ReductionCase& c : cases) {
      if (c.floating_only && !TypeTraitsHelper::IsFloattingPoint(type)) continue;
      std::string name = c.name;
      DataType expected_type =
          name == "CountNonzero"                                                           ? kInt64
          : (name == "Mean" || name == "Std") && !TypeTraitsHelper::IsFloattingPoint(type) ? kFloat
                                                                                           : type;
      for (std::optional<int> axis : axes) {
        for (bool keepdims : {false, true}) {
          Matrix out = c.fn(in, axis, keepdims);
          ASSERT_EQ(out.dtype(), expected_type) << name << " " << type;
          ASSERT_EQ(out.shape(), ExpectedShape(shape, axis, keepdims)) << name << " " << type;
          std::vector<double> expected = ReduceReference(v, shape.dims(), axis, c.ref);
          std::vector<double> actual = Values(out);
          std::vector<double> scale = ReduceReference(v, shape.dims(), axis, RefAbsSum);
          for (size_t i = 0; i < expected.size(); ++i) {
            double e = linvo_test::RoundTo(expected_type, expected[i]);
            if (!linvo_test::Representable(expected_type, e)) continue;  // e.g. int8 sums wrap
            // Sums of many rounded terms: allow a few units of the result type's precision.
            double magnitude = name == "Sum" ? scale[i] : e;
            double tol = 4 * linvo_test::Tolerance(expected_type, magnitude) + 1e-9;
            if (name == "Mean" && TypeTraitsHelper::IsIntegral(type, true)) tol = 1e-5;
            ASSERT_NEAR(actual[i], e, tol)
                << name << " " << type << " axis " << (axis ? *axis : 99) << " at " << i;
          }
        }
      }
    }
  }
}

TEST(Reduction, CountNonzeroOverSeveralAxes) {
  Matrix in = RandomMatrix({2, 3, 4}, kInt16);
  std::vector<double> v = Values(in);
  Matrix out = CountNonzero(in, std::vector<int>{0, 2}, true);
  EXPECT_EQ(out.shape(), (Shape{1, 3, 1}));
  for (int64_t j = 0; j < 3; ++j) {
    int64_t count = 0;
    for (int64_t i = 0; i < 2; ++i)
      for (int64_t k = 0; k < 4; ++k) count += v[(i * 3 + j) * 4 + k] != 0;
    EXPECT_EQ(out.data<int64_t>()[j], count);
  }
  EXPECT_EQ(CountNonzero(in, std::vector<int>{}).data<int64_t>()[0], RefCount(v));
}

TEST(Reduction, LargeFloatSumIsAccurate) {
  Matrix in = RandomMatrix({1 << 16}, kFloat, true);
  std::vector<double> v = Values(in);
  EXPECT_NEAR(in.Sum().data<float>()[0], RefSum(v), 1e-5 * RefSum(v));
}

TEST(Softmax, AlongEachAxisForFloatingTypes) {
  for (DataType type : {kFloat, kDouble, kHalf, kBFloat}) {
    const Shape shape{3, 5, 6};
    Matrix in = RandomMatrix(shape, type);
    std::vector<double> v = Values(in);
    for (int axis : {0, 1, 2, -1}) {
      Matrix out = in.Softmax(axis);
      ASSERT_EQ(out.dtype(), type);
      ASSERT_EQ(out.shape(), shape);
      int a = GetRealAxis(axis, 3);
      std::vector<double> actual = Values(out);
      for (int64_t i = 0; i < shape.size(); ++i) {
        auto idx = linvo_test::Unravel(i, shape.dims());
        double denominator = 0;
        for (int64_t k = 0; k < shape.dims()[a]; ++k) {
          auto j = idx;
          j[a] = k;
          denominator += std::exp(v[linvo_test::Ravel(j, shape.dims())]);
        }
        double e = std::exp(v[i]) / denominator;
        // Packed types round every intermediate step (x - max in particular) to their precision.
        double rel = (IsPackedFloat(type) ? 10 : 4) * linvo_test::Tolerance(type, 1.0);
        ASSERT_NEAR(actual[i], e, rel * std::max(e, 0.01)) << type << " axis " << axis;
      }
    }
  }
}

TEST(Softmax, IntegralInputGivesFloat) {
  Matrix in = RandomMatrix({2, 4}, kInt32);
  Matrix out = Softmax(in, 1);
  EXPECT_EQ(out.dtype(), kFloat);
  std::vector<double> v = Values(in), o = Values(out);
  for (int r = 0; r < 2; ++r) {
    double s = 0;
    for (int k = 0; k < 4; ++k) s += std::exp(v[r * 4 + k]);
    for (int k = 0; k < 4; ++k) EXPECT_NEAR(o[r * 4 + k], std::exp(v[r * 4 + k]) / s, 1e-6);
  }
  Matrix f = RandomMatrix({2, 4}, kFloat);
  Matrix expected = f.Softmax(0);
  f.Softmax_(0);
  EXPECT_TRUE(f == expected);
}

}  // namespace
