#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>

#include "test_util.h"

namespace {

using namespace linvo;

template <typename E, typename Fn>
std::string ErrorOf(Fn fn) {
  try {
    fn();
  } catch (const E& e) {
    return e.what();
  }
  return "<no exception>";
}

TEST(Shape, SizeStridesAndText) {
  Shape s{2, 3, 4};
  EXPECT_EQ(s.size(), 24);
  EXPECT_EQ(s.strides(), (Dims{12, 4, 1}));
  EXPECT_EQ(s.Str(), "[2,3,4]");
  std::ostringstream ss;
  ss << s;
  EXPECT_EQ(ss.str(), "[2, 3, 4]");
  EXPECT_EQ(Shape().size(), 1);
  EXPECT_EQ(Shape().Str(), "[]");
  EXPECT_TRUE(s.IsValid());
  EXPECT_FALSE((Shape{2, 0}).IsValid());
  EXPECT_EQ((Shape{2, 0}).size(), 0);
}

TEST(Shape, Indexing) {
  Shape s{2, 3, 4};
  EXPECT_EQ(s[-1], 4);
  EXPECT_EQ(s[0], 2);
  s[1] = 7;
  EXPECT_EQ(s.Str(), "[2,7,4]");
  EXPECT_EQ(ErrorOf<std::out_of_range>([&] { return s[3]; }),
            "index 3 out of range, the max dimension is 3");
  EXPECT_EQ(GetRealAxis(-1, 3), 2);
  EXPECT_THROW(GetRealAxis(-4, 3), std::out_of_range);
  EXPECT_EQ(GetRealAxisWithMaxDim(-1, 3), 3);
  EXPECT_THROW(GetRealAxisWithMaxDim(4, 3), std::out_of_range);
  EXPECT_EQ(GetRealAxes({-1, 0}, 2), (std::vector<int>{1, 0}));
}

TEST(Shape, DerivedShapes) {
  Shape s{2, 3, 4};
  EXPECT_EQ((s + Shape{5}).Str(), "[2,3,4,5]");
  Shape t = s;
  t += Shape{6, 7};
  EXPECT_EQ(t.Str(), "[2,3,4,6,7]");
  EXPECT_EQ(s.Slice(1, 3).Str(), "[3,4]");
  EXPECT_EQ(s.Slice(0, -1).Str(), "[2,3]");
  EXPECT_EQ(s.Slice(2, 2).Str(), "[]");
  EXPECT_EQ(s.Insert(1, 9).Str(), "[2,9,3,4]");
  EXPECT_EQ(s.Insert(3, 9).Str(), "[2,3,4,9]");
  EXPECT_EQ(s.Erase(-1).Str(), "[2,3]");
  EXPECT_EQ(s.Reverse().Str(), "[4,3,2]");
  EXPECT_EQ((Shape{2, 3}).Expand(-1).Str(), "[2,3,1]");
  EXPECT_EQ((Shape{2, 3}).Expand(0).Str(), "[1,2,3]");
  EXPECT_EQ((Shape{2, 3}).ExpandTo(0, 4).Str(), "[1,1,2,3]");
  EXPECT_EQ((Shape{2, 3}).ExpandTo(0, 1).Str(), "[2,3]");
  EXPECT_EQ(s.Transpose({2, 0, 1}).Str(), "[4,2,3]");
  EXPECT_EQ(s.Transpose({-1, 1, 0}).Str(), "[4,3,2]");
  EXPECT_EQ(s.Str(), "[2,3,4]");  // the source is unchanged
}

TEST(Shape, TransposeErrors) {
  Shape s{2, 3};
  EXPECT_EQ(ErrorOf<std::invalid_argument>([&] { s.Transpose({0}); }),
            "Invalid transpose order [0] with shape [2, 3]");
  EXPECT_EQ(ErrorOf<std::invalid_argument>([&] {
              s.Transpose({1, 1});
            }),
            "Invalid transpose order [1, 1] with shape [2, 3]");
}

TEST(Shape, Reshape) {
  EXPECT_EQ((Shape{2, 3}).Reshape({-1}).Str(), "[6]");
  EXPECT_EQ((Shape{2, 3, 4}).Reshape({-1, 4}).Str(), "[6,4]");
  EXPECT_EQ((Shape{2, 3, 4}).Reshape({4, 3, 2}).Str(), "[4,3,2]");
  std::string e = ErrorOf<std::invalid_argument>([] { Shape{2, 3}.Reshape({-1, -1}); });
  EXPECT_EQ(e.rfind("Invalid reshape size: ", 0), 0u) << e;
  EXPECT_EQ(ErrorOf<std::invalid_argument>([] {
              Shape{2, 3}.Reshape({-2, 3});
            }),
            "Invalid reshape size: [-2, 3]");
  EXPECT_EQ(ErrorOf<std::invalid_argument>([] {
              Shape{2, 3}.Reshape({4, 2});
            }),
            "Cannot reshape: [2, 3] to [4, 2], total size mismatch: 6 vs 8");
  e = ErrorOf<std::invalid_argument>([] { Shape{2, 3}.Reshape({4, -1}); });
  EXPECT_EQ(e.rfind("Cannot reshape: [2, 3] to [4, -1]", 0), 0u) << e;
}

TEST(Shape, Broadcasting) {
  struct Case {
    Shape a, b;
    std::string expected;  // empty: cannot broadcast
  };
  const Case cases[] = {
      {{3, 1, 5}, {4, 1}, "[3,4,5]"},
      {{2, 3}, {4, 3}, ""},
      {{}, {7}, "[7]"},
      {{0}, {1}, "[0]"},
      {{1}, {1, 1}, "[1,1]"},
      {{5, 1}, {1, 6}, "[5,6]"},
      {{2, 1}, {3}, "[2,3]"},
      {{3}, {4}, ""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(CanBroadcastShape(c.a, c.b), !c.expected.empty()) << c.a << c.b;
    EXPECT_EQ(CanBroadcastDims(c.a.dims(), c.b.dims()), !c.expected.empty());
    if (c.expected.empty()) {
      EXPECT_EQ(ErrorOf<std::runtime_error>([&] {
                  BroadcastShape(c.a, c.b);
                }).rfind("Cannot broadcast shapes", 0),
                0u);
    } else {
      EXPECT_EQ(BroadcastShape(c.a, c.b).Str(), c.expected);
    }
  }
}

TEST(Shape, BroadcastStrides) {
  EXPECT_EQ((Shape{3, 1}).GetBroadcastStrides({2, 3, 4}).dims(), (Dims{0, 1, 0}));
  EXPECT_EQ((Shape{2, 3, 4}).GetBroadcastStrides({2, 3, 4}).dims(), (Dims{12, 4, 1}));
  EXPECT_EQ((Shape{}).GetBroadcastStrides({2}).dims(), (Dims{0}));
  std::string e = ErrorOf<std::runtime_error>([] { Shape{3}.GetBroadcastStrides({4}); });
  EXPECT_EQ(e.rfind("Cannot get broadcast strides[", 0), 0u) << e;
}

}  // namespace
