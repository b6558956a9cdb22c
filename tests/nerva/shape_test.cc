#include "nerva/shape.h"

#include <gtest/gtest.h>

#include <sstream>

#include "test_util.h"

namespace nerva {
namespace {

using Sizes = std::vector<long>;

TEST(Shape, ContiguousStridesAndText) {
  Shape s{2, 3, 4};
  EXPECT_EQ(s.strides(), (Sizes{12, 4, 1}));
  EXPECT_EQ(s.size(), 24);
  EXPECT_EQ(s.Str(), "[2,3,4]");
  std::ostringstream os;
  os << s;
  EXPECT_EQ(os.str(), "[2, 3, 4]");
  Shape empty;
  EXPECT_EQ(empty.size(), 0);
  EXPECT_EQ(empty.Str(), "[]");
  EXPECT_EQ(Shape({0, 5}).size(), 0);
}

TEST(Shape, ExplicitStrides) {
  Sizes sizes{2, 3}, strides{1, 2};
  Shape s(sizes, ArrayRef<long>(strides));
  EXPECT_EQ(s.strides(), strides);
  Sizes wrong{1};
  EXPECT_THROW_MSG(Shape(sizes, ArrayRef<long>(wrong)), std::runtime_error,
                   "New shape dims of sizes and strides mismatch 2 vs 1");
}

TEST(Shape, IndexingCountsFromTheEnd) {
  Shape s{2, 3, 4};
  EXPECT_EQ(s[-1], 4);
  EXPECT_EQ(s[0], 2);
  s[-2] = 7;
  EXPECT_EQ(s.sizes(), (Sizes{2, 7, 4}));
  EXPECT_THROW_MSG(s[3], std::out_of_range, "index 3 out of range, the max dimension is 3");
  EXPECT_THROW_MSG(s[-4], std::out_of_range, "index -4 out of range, the max dimension is 3");
}

TEST(Shape, RefusesCountsPast31Bits) {
  EXPECT_EQ((Shape{65536, 32767}).size(), 2147418112L);
  EXPECT_EQ((Shape{2147483647}).size(), 2147483647L);
  EXPECT_THROW_MSG((Shape{65536, 65536}), std::runtime_error,
                   "Shape [65536, 65536] spans more than 2147483647 elements");
  EXPECT_THROW_MSG((Shape{65537, 65536}), std::runtime_error,
                   "Shape [65537, 65536] spans more than 2147483647 elements");
  // Zero sizes count as one, so the strides of the others still fit.
  EXPECT_THROW((Shape{3, 0, 1L << 62}), std::runtime_error);
  EXPECT_THROW((Shape{3, 1L << 62}), std::runtime_error);
  EXPECT_EQ((Shape{0, 65536, 32767}).size(), 0);
}

TEST(Shape, AxisHelpers) {
  EXPECT_EQ(GetRealAxis(-1, 3), 2);
  EXPECT_EQ(GetRealAxis(2, 3), 2);
  EXPECT_THROW_MSG(GetRealAxis(-4, 3), std::out_of_range,
                   "index -4 out of range, the max dimension is 3");
  EXPECT_EQ(GetRealAxisWithMaxDim(-1, 3), 3);
  EXPECT_EQ(GetRealAxisWithMaxDim(3, 3), 3);
  EXPECT_EQ(GetRealAxisWithMaxDim(-4, 3), 0);
  EXPECT_EQ(GetRealAxisWithMaxDim(-6, 3), -2);  // lenient lower bound
  EXPECT_THROW_MSG(GetRealAxisWithMaxDim(4, 3), std::out_of_range,
                   "index 4 out of range, the max dimension is 3");
}

TEST(Shape, DerivedShapes) {
  struct Case {
    const char* what;
    Shape got;
    Sizes sizes;
    Sizes strides;
  };
  const Shape s{2, 3, 4};
  const Shape two{2, 3};
  const Case cases[] = {
      {"slice 1..10", s.Slice(1, 10), {3, 4}, {0, 0}},
      {"slice -2..-1", s.Slice(-2, -1), {3, 4}, {0, 0}},
      {"slice 3..3", s.Slice(3, 3), {}, {}},
      {"slice 2..1", s.Slice(2, 1), {}, {}},
      {"expand -1", two.Expand(-1), {2, 3, 1}, {3, 1, 1}},
      {"expand 0", two.Expand(0), {1, 2, 3}, {6, 3, 1}},
      {"expand rank", two.Expand(2), {2, 3, 1}, {3, 1, 1}},
      {"expand 1", two.Expand(1), {2, 1, 3}, {3, 3, 1}},
      {"expand_to 0,4", two.ExpandTo(0, 4), {1, 1, 2, 3}, {6, 6, 3, 1}},
      {"expand_to -1,3", two.ExpandTo(-1, 3), {2, 3, 1}, {3, 1, 1}},
      {"expand_to no-op", s.ExpandTo(0, 2), {2, 3, 4}, {12, 4, 1}},
      {"insert", two.Insert(1, 5), {2, 5, 3}, {15, 3, 1}},
      {"insert end", two.Insert(-1, 5), {2, 3, 5}, {15, 5, 1}},
      {"erase", s.Erase(-2), {2, 4}, {4, 1}},
      {"reverse", s.Reverse(), {4, 3, 2}, {6, 2, 1}},
      {"transpose", s.Transpose({2, 0, 1}), {4, 2, 3}, {1, 12, 4}},
      {"transpose negative", s.Transpose({-1, -2, -3}), {4, 3, 2}, {1, 4, 12}},
      {"reshape -1", s.Reshape({-1, 4}), {6, 4}, {4, 1}},
      {"reshape", s.Reshape({4, 6}), {4, 6}, {6, 1}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.got.sizes(), c.sizes) << c.what;
    EXPECT_EQ(c.got.strides(), c.strides) << c.what;
  }
}

TEST(Shape, Failures) {
  const Shape s{2, 3, 4};
  EXPECT_THROW_MSG(s.Transpose({1, 0}), std::runtime_error,
                   "Invalid transpose order [1, 0] with shape [2, 3, 4]");
  EXPECT_THROW_MSG(s.Transpose({0, 0, 1}), std::runtime_error,
                   "Invalid transpose order [0, 0, 1] with shape [2, 3, 4]");
  EXPECT_THROW_MSG(s.Transpose({0, 3, 1}), std::out_of_range,
                   "index 3 out of range, the max dimension is 3");
  EXPECT_THROW_MSG(s.Transpose({0, -4, 1}), std::out_of_range,
                   "index -4 out of range, the max dimension is 3");
  EXPECT_THROW_MSG(s.Reshape({5, -1}), std::runtime_error, "Cannot reshape: [2, 3, 4] to [5, -1]");
  EXPECT_THROW_MSG(s.Reshape({-2, 12}), std::runtime_error, "Invalid reshape size: [-2, 12]");
  EXPECT_THROW_MSG(s.Reshape({5, 5}), std::runtime_error,
                   "Cannot reshape: [2, 3, 4] to [5, 5], total size mismatch: 24 vs 25");
  EXPECT_THROW_MSG(s.Reshape({0, -1}), std::runtime_error, "Cannot reshape: [2, 3, 4] to [0, -1]");
}

TEST(Shape, FailedInPlaceReshapeKeepsTheShape) {
  Shape s{2, 3, 4};
  EXPECT_THROW(s.Reshape_({7}), std::runtime_error);
  EXPECT_EQ(s.sizes(), (Sizes{2, 3, 4}));
  s.Reshape_({3, -1});
  EXPECT_EQ(s.sizes(), (Sizes{3, 8}));
  EXPECT_EQ(s.strides(), (Sizes{8, 1}));
}

TEST(Broadcast, Sizes) {
  struct Case {
    Sizes a, b, expected;
  };
  const Case cases[] = {
      {{3, 1, 5}, {4, 1}, {3, 4, 5}},
      {{}, {7}, {7}},
      {{7}, {}, {7}},
      {{0}, {1}, {1}},
      {{1}, {0}, {1}},
      {{2, 1}, {1, 3}, {2, 3}},
      {{5, 4}, {4}, {5, 4}},
      {{1, 1, 1}, {2}, {1, 1, 2}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(BroadcastSizes(c.a, c.b), c.expected);
    EXPECT_TRUE(CanBroadcast(c.a, c.b));
    EXPECT_EQ(BroadcastShape(Shape(c.a), Shape(c.b)).sizes(), c.expected);
  }
  EXPECT_THROW_MSG(BroadcastSizes({2, 3}, {4, 3}), std::runtime_error,
                   "Cannot broadcast shapes [2, 3] and [4, 3]");
  EXPECT_FALSE(CanBroadcast({2, 3}, {4, 3}));
  EXPECT_FALSE(CanBroadcastShape(Shape{3}, Shape{2}));
  EXPECT_TRUE(CanBroadcastShape(Shape{3}, Shape{2, 3}));
  EXPECT_EQ(BroadcastShape(Shape{3, 1}, Shape{2, 1, 4}).strides(), (Sizes{12, 4, 1}));
}

}  // namespace
}  // namespace nerva
