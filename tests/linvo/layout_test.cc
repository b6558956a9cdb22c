#include <gtest/gtest.h>

#include <numeric>
#include <regex>

#include "test_util.h"

namespace {

using namespace linvo;
using linvo_test::RandomMatrix;
using linvo_test::Ravel;
using linvo_test::Unravel;
using linvo_test::Values;

std::string CaptureLog(const std::function<void()>& fn) {
  testing::internal::CaptureStdout();
  fn();
  return testing::internal::GetCapturedStdout();
}

// Every logged check, in order, as its condition text.
std::vector<std::string> Checks(const std::string& log) {
  static const std::regex record(
      R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\] \[E\] \[LINVO\] Check '(.*)' fail!)");
  std::vector<std::string> result;
  for (std::sregex_iterator it(log.begin(), log.end(), record), end; it != end; ++it) {
    result.push_back((*it)[1]);
  }
  return result;
}

TEST(Transpose, PermutationsForEveryType) {
  const std::vector<std::vector<int>> orders = {{2, 0, 1}, {1, 0, 2}, {2, 1, 0}, {0, 2, 1}};
  // The second shape takes the 4x4 register-block path for 32-bit types.
  for (const Shape& shape : {Shape{5, 33, 37}, Shape{8, 12, 20}})
    for (DataType type : linvo_test::AllTypes()) {
      Matrix in = RandomMatrix(shape, type);
      std::vector<double> v = Values(in);
      for (const auto& order : orders) {
        Matrix out = Transpose(in, order);
        ASSERT_EQ(out.shape(), shape.Transpose(order));
        std::vector<double> o = Values(out);
        for (int64_t i = 0; i < out.size(); ++i) {
          auto idx = Unravel(i, out.shape().dims());
          std::vector<int64_t> src(3);
          for (int d = 0; d < 3; ++d) src[order[d]] = idx[d];
          ASSERT_EQ(o[i], v[Ravel(src, shape.dims())]) << type;
        }
      }
    }
}

TEST(Transpose, LargeTiledAndMembers) {
  Matrix in = RandomMatrix({130, 70}, kFloat);
  Matrix t = in.T();
  ASSERT_EQ(t.shape(), (Shape{70, 130}));
  for (int i = 0; i < 130; ++i)
    for (int j = 0; j < 70; ++j)
      ASSERT_EQ(t.data<float>()[j * 130 + i], in.data<float>()[i * 70 + j]);
  EXPECT_TRUE(t.T() == in);
  EXPECT_TRUE(in.Reverse() == t);
}

TEST(Transpose, FailedChecksAreLogged) {
  Matrix in = RandomMatrix({2, 3}, kFloat);
  Matrix out(Shape{3, 2}, kInt32);
  EXPECT_EQ(Checks(CaptureLog([&] {
              Transpose(in, {1, 0}, out);
            })),
            (std::vector<std::string>{"mat.dtype() == out_mat.dtype()"}));
  Matrix flat(Shape{6}, kFloat);
  EXPECT_EQ(Checks(CaptureLog([&] {
              Transpose(in, {1, 0}, flat);
            })),
            (std::vector<std::string>{"mat.ndim() == out_mat.ndim()"}));
  EXPECT_EQ(
      Checks(CaptureLog([&] { Transpose(in, {0}, out); })),
      (std::vector<std::string>{"mat.ndim() == order.size()", "mat.dtype() == out_mat.dtype()"}));
}

TEST(Slice, WithConversionForEveryPairOfTypes) {
  const Shape shape{6, 9};
  const Dims starts{1, 2}, ends{6, 9}, steps{2, 3};
  for (DataType from : linvo_test::AllTypes()) {
    Matrix in = RandomMatrix(shape, from, true);
    std::vector<double> v = Values(in);
    for (DataType to : linvo_test::AllTypes()) {
      Matrix out(Shape{3, 3}, to);
      Slice(in, starts, ends, steps, out);
      std::vector<double> o = Values(out);
      for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
          double e = linvo_test::RoundTo(to, v[(1 + 2 * i) * 9 + 2 + 3 * j]);
          ASSERT_NEAR(o[i * 3 + j], e, linvo_test::Tolerance(to, e)) << from << " " << to;
        }
      }
    }
  }
}

TEST(Slice, ShapesAndChecks) {
  Matrix in = RandomMatrix({4, 5, 6}, kInt16);
  Matrix s = in.Slice({0, 1, 2}, {4, 5, 6}, {3, 2, 4});
  EXPECT_EQ(s.shape(), (Shape{2, 2, 1}));
  EXPECT_EQ(s.data<int16_t>()[3], in.data<int16_t>()[3 * 30 + 3 * 6 + 2]);
  Matrix out(Shape{2, 2}, kInt16);
  auto checks = Checks(CaptureLog([&] { Slice(in, {0, 0}, {2, 2}, {1, 1}, out); }));
  EXPECT_EQ(checks,
            (std::vector<std::string>{"starts.size() == in.ndim()", "in.ndim() == out.ndim()"}));
  checks = Checks(CaptureLog([&] { in.Slice({0, 3, 0}, {4, 3, 6}, {1, 1, 1}); }));
  EXPECT_EQ(checks,
            (std::vector<std::string>{"starts[i] < ends[i]", "ends[i] - starts[i] >= steps[i]"}));
  checks = Checks(CaptureLog([&] { in.Slice({0, 0, 0}, {4, 2, 6}, {1, 3, 1}); }));
  EXPECT_EQ(checks, (std::vector<std::string>{"ends[i] - starts[i] >= steps[i]"}));
  checks = Checks(CaptureLog([&] { in.Slice({0, 0}, {4, 2, 6}, {1, 3}); }));
  EXPECT_EQ(checks,
            (std::vector<std::string>{"starts.size() == in.ndim()", "starts.size() == ends.size()",
                                      "ends[i] - starts[i] >= steps[i]"}));
  // A negative start would read before the input: refused, nothing copied.
  Matrix small(Shape{2, 2}, kInt16);
  checks = Checks(CaptureLog([&] { Slice(in, {-2, 0, 0}, {2, 2, 2}, {1, 1, 1}, small); }));
  EXPECT_EQ(checks, (std::vector<std::string>{"in.ndim() == out.ndim()", "starts[i] >= 0"}));
}

TEST(Tile, FromRepeatsAndFromShapes) {
  for (DataType type : {kFloat, kHalf, kInt64, kBool, kUInt8}) {
    Matrix in = RandomMatrix({2, 3}, type);
    std::vector<double> v = Values(in);
    Matrix out = in.Tile({2, 3, 2});
    ASSERT_EQ(out.shape(), (Shape{2, 6, 6}));
    std::vector<double> o = Values(out);
    for (int64_t i = 0; i < out.size(); ++i) {
      auto idx = Unravel(i, out.shape().dims());
      ASSERT_EQ(o[i], v[(idx[1] % 2) * 3 + idx[2] % 3]) << type;
    }
    Matrix filled(Shape{2, 6, 6}, type);
    Tile(in, filled);
    EXPECT_TRUE(filled == out);
  }
  Matrix in = RandomMatrix({2, 3}, kFloat);
  EXPECT_EQ(Checks(CaptureLog([&] { in.Tile({3}); })),
            (std::vector<std::string>{"dims.size() >= in.ndim()"}));
  EXPECT_EQ(Checks(CaptureLog([&] {
              in.Tile({1, 0});
            })),
            (std::vector<std::string>{"dims[repeats + i] > 0"}));
}

TEST(BroadcastTo, AgainstReference) {
  for (DataType type : {kDouble, kBFloat, kInt8, kFloat8_e5m2}) {
    Matrix in = RandomMatrix({3, 1, 4}, type);
    std::vector<double> v = Values(in);
    Matrix out = in.BroadcastTo({2, 3, 5, 4});
    ASSERT_EQ(out.shape(), (Shape{2, 3, 5, 4}));
    std::vector<double> o = Values(out);
    for (int64_t i = 0; i < out.size(); ++i) {
      auto idx = Unravel(i, out.shape().dims());
      ASSERT_EQ(o[i], v[idx[1] * 4 + idx[3]]) << type;
    }
  }
  Matrix in = RandomMatrix({3, 2}, kFloat), bad(Shape{4, 2}, kFloat);
  EXPECT_EQ(Checks(CaptureLog([&] { BroadcastTo(in, bad); })),
            (std::vector<std::string>{"CanBroadcastShape(in.shape(), out.shape())"}));
  EXPECT_EQ(Checks(CaptureLog([&] { in.BroadcastTo({2}); })),
            (std::vector<std::string>{"broadcast_to.ndim() >= ndim()"}));
}

TEST(Copy, BlockBetweenTypes) {
  Matrix in = RandomMatrix({4, 5}, kInt32);
  Matrix out(Shape{3, 6}, kHalf);
  Copy(in, {1, 2}, {0, 3}, {2, 3}, out);
  std::vector<double> v = Values(in), o = Values(out);
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 6; ++j) {
      double e = i < 2 && j >= 3 ? v[(1 + i) * 5 + 2 + j - 3] : 0;
      EXPECT_EQ(o[i * 6 + j], e);
    }
  }
  EXPECT_EQ(Checks(CaptureLog([&] {
              Copy(in, {3, 0}, {0, 0}, {2, 1}, out);
            })),
            (std::vector<std::string>{"in_offsets[i] + block_size[i] <= in_dims[i]"}));
  EXPECT_EQ(Checks(CaptureLog([&] {
              Copy(in, {0, 0}, {3, 0}, {1, 1}, out);
            })),
            (std::vector<std::string>{"out_offsets[i] < out_dims[i]",
                                      "out_offsets[i] + block_size[i] <= out_dims[i]"}));
}

TEST(Split, ChunksAlongAxis) {
  Matrix in = RandomMatrix({3, 7}, kUInt16);
  std::vector<Matrix> parts = in.Split(1, 3);
  ASSERT_EQ(parts.size(), 3u);
  EXPECT_EQ(parts[2].shape(), (Shape{3, 1}));
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 7; ++c)
      EXPECT_EQ(parts[c / 3].data<uint16_t>()[r * parts[c / 3].shape()[1] + c % 3],
                in.data<uint16_t>()[r * 7 + c]);
  std::vector<Matrix> wrong(2, Matrix(Shape{3, 3}, kUInt16));
  EXPECT_EQ(Checks(CaptureLog([&] { Split(in, 1, 3, wrong); })),
            (std::vector<std::string>{"out_matrix_num == static_cast<int64_t>(outs.size())"}));
}

TEST(Index, IntegerAndBooleanIndices) {
  Matrix in = RandomMatrix({4, 3}, kFloat);
  Matrix rows(Shape{2, 2}, kInt32);
  int32_t r[] = {3, 0, -1, 1};
  rows.Load(r);
  Matrix out = in.Index({rows});
  ASSERT_EQ(out.shape(), (Shape{2, 2, 3}));
  const int expect_rows[] = {3, 0, 3, 1};
  for (int p = 0; p < 4; ++p)
    for (int c = 0; c < 3; ++c)
      EXPECT_EQ(out.data<float>()[p * 3 + c], in.data<float>()[expect_rows[p] * 3 + c]);
  Matrix cols(Shape{2}, kInt64);
  int64_t cv[] = {2, 0};
  cols.Load(cv);
  Matrix first(Shape{2}, kInt64);
  int64_t fv[] = {3, 0};
  first.Load(fv);
  Matrix picked = in.Index({first, cols});
  EXPECT_EQ(picked.shape(), (Shape{2}));
  EXPECT_EQ(picked.data<float>()[0], in.data<float>()[3 * 3 + 2]);
  EXPECT_EQ(picked.data<float>()[1], in.data<float>()[0 * 3 + 0]);
  Matrix mask(Shape{4}, kBool);
  uint8_t m[] = {0, 1, 0, 1};
  mask.Load(m);
  Matrix masked = in.Index({mask});
  ASSERT_EQ(masked.shape(), (Shape{2, 3}));
  EXPECT_EQ(masked.data<float>()[3], in.data<float>()[9]);
  r[0] = 4;
  rows.Load(r);
  EXPECT_EQ(Checks(CaptureLog([&] { in.Index({rows}); })), (std::vector<std::string>{"index "}));
  EXPECT_EQ(Checks(CaptureLog([&] { in.Index({}); })),
            (std::vector<std::string>{"valid_index != 0"}));
}

TEST(Pad, ConstantBorders) {
  Matrix in = RandomMatrix({2, 3}, kInt8);
  Matrix out = in.Pad({1, 2, 0, 1}, 7L);
  ASSERT_EQ(out.shape(), (Shape{3, 6}));
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 6; ++j) {
      int8_t e = i < 2 && j >= 1 && j < 4 ? in.data<int8_t>()[i * 3 + j - 1] : 7;
      EXPECT_EQ(out.data<int8_t>()[i * 6 + j], e);
    }
  }
  Matrix h = RandomMatrix({2}, kHalf).Pad({1, 0}, 0.5);
  EXPECT_EQ(h.data<uint16_t>()[0], 0x3800);
  EXPECT_EQ(Checks(CaptureLog([&] { in.Pad({1}, 0.0); })),
            (std::vector<std::string>{"sizes.size() % 2 == 0"}));
}

TEST(CastMatrix, EveryPairMatchesElementConversion) {
  for (DataType from : linvo_test::AllTypes()) {
    Matrix in = RandomMatrix({17}, from, true);
    std::vector<double> v = Values(in);
    for (DataType to : linvo_test::AllTypes()) {
      Matrix out = CastMatrix(in, to);
      ASSERT_EQ(out.dtype(), to);
      std::vector<double> o = Values(out);
      for (size_t i = 0; i < v.size(); ++i) {
        double e = linvo_test::RoundTo(to, v[i]);
        ASSERT_NEAR(o[i], e, linvo_test::Tolerance(to, e)) << from << " -> " << to;
      }
    }
  }
  Matrix a(Shape{3}, kFloat), b(Shape{4}, kInt8);
  EXPECT_EQ(Checks(CaptureLog([&] { CastMatrix(a, b); })),
            (std::vector<std::string>{"mat1.size() == mat2.size()"}));
}

TEST(Fill, TypedAndConverted) {
  Matrix m(Shape{5}, kBFloat);
  m.Fill_(1.5);
  EXPECT_EQ(Values(m), std::vector<double>(5, 1.5));
  Fill<kBFloat>(m, 0x4000);
  EXPECT_EQ(Values(m), std::vector<double>(5, 2.0));
  EXPECT_EQ(Checks(CaptureLog([&] { Fill<kFloat>(m, 1.0f); })),
            (std::vector<std::string>{"mat.dtype() == E"}));
  Matrix i(Shape{3}, kInt64);
  i.Fill_(-4);
  EXPECT_EQ(Values(i), std::vector<double>(3, -4));
}

}  // namespace
