#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <regex>

#include "test_util.h"

namespace {

using namespace linvo;
using linvo_test::RandomMatrix;
using linvo_test::Values;

TEST(Matrix, DefaultHasNoTypeAndNoStorage) {
  Matrix m;
  EXPECT_EQ(m.dtype(), -1);
  EXPECT_EQ(m.ndim(), 0);
  EXPECT_EQ(m.data(), nullptr);
  EXPECT_EQ(m.size(), 0);
}

TEST(Matrix, OwnedStorageIsZeroFilledAndSharedByCopies) {
  Matrix m(Shape{2, 3}, kInt32);
  EXPECT_EQ(m.nbytes(), 24u);
  EXPECT_EQ(Values(m), std::vector<double>(6, 0));
  Matrix shared = m;
  shared.data<int32_t>()[4] = 9;
  EXPECT_EQ(m.data<int32_t>()[4], 9);
  Matrix copy = m.Clone();
  copy.data<int32_t>()[4] = 1;
  EXPECT_EQ(m.data<int32_t>()[4], 9);
  EXPECT_FALSE(copy == m);
  EXPECT_TRUE(m.Clone() == m);
}

TEST(Matrix, WrapsCallerMemoryWithoutCopy) {
  float buffer[6] = {1, 2, 3, 4, 5, 6};
  Matrix m(Shape{2, 3}, kFloat, buffer);
  EXPECT_EQ(m.data(), buffer);
  Matrix out(Shape{3, 2}, kFloat, buffer + 0);  // a second view of the same memory
  m.data<float>()[0] = 7;
  EXPECT_EQ(buffer[0], 7);
  float transposed[6];
  Matrix t(Shape{3, 2}, kFloat, transposed);
  Transpose(m, {1, 0}, t);
  EXPECT_EQ(transposed[1], 4);
  EXPECT_EQ(transposed[4], 3);
}

TEST(Matrix, Factories) {
  EXPECT_EQ(Values(Empty({3}, kHalf)), std::vector<double>(3, 0));
  Matrix r = RandomMatrix({2, 2}, kDouble);
  Matrix like = EmptyLike(r);
  EXPECT_EQ(like.shape(), r.shape());
  EXPECT_EQ(like.dtype(), kDouble);
  EXPECT_EQ(Values(like), std::vector<double>(4, 0));
  for (DataType type : linvo_test::AllTypes()) {
    EXPECT_EQ(Values(Ones({2, 2}, type)), std::vector<double>(4, 1)) << type;
  }
  Matrix h = Ones({1}, kHalf);
  EXPECT_EQ(h.data<uint16_t>()[0], 0x3C00);
}

TEST(Matrix, EqualityComparesShapeTypeAndBytes) {
  Matrix a = RandomMatrix({2, 3}, kInt16);
  Matrix b = a.Clone();
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a == b.Reshape({3, 2}));
  EXPECT_FALSE(a == a.CastTo(kUInt16));
}

TEST(Matrix, ShapeChangingMembers) {
  Matrix a = RandomMatrix({2, 1, 3}, kFloat);
  EXPECT_EQ(a.Reshape({3, -1}).shape(), (Shape{3, 2}));
  EXPECT_EQ(a.Squeeze().shape(), (Shape{2, 3}));
  EXPECT_EQ(a.Unsqueeze(0).shape(), (Shape{1, 2, 1, 3}));
  EXPECT_EQ(a.Expand(-1).shape(), (Shape{2, 1, 3, 1}));
  EXPECT_EQ(a.shape(), (Shape{2, 1, 3}));  // non-`_` forms leave the source alone
  Matrix alias = a;
  a.Squeeze_();
  EXPECT_EQ(alias.shape(), (Shape{2, 3}));  // in place: visible through every copy
  a.Unsqueeze_(1).Expand_(3);
  EXPECT_EQ(a.shape(), (Shape{2, 1, 3, 1}));
  a.Reshape_({6});
  EXPECT_EQ(a.shape(), (Shape{6}));
  EXPECT_THROW(a.Reshape_({4}), std::invalid_argument);
  Matrix r = RandomMatrix({2, 3}, kFloat);
  Matrix t = r.T();
  r.Reverse_();
  EXPECT_TRUE(r == t);
  testing::internal::CaptureStdout();
  a.Unsqueeze_(1);
  std::string log = testing::internal::GetCapturedStdout();
  EXPECT_NE(log.find("Check 'insert_index < in.ndim()' fail!"), std::string::npos) << log;
  testing::internal::CaptureStdout();
  r.Squeeze_(1, 0);
  log = testing::internal::GetCapturedStdout();
  EXPECT_NE(log.find("Check 'real_start <= real_end' fail!"), std::string::npos) << log;
}

TEST(Matrix, FileRoundTripAndErrors) {
  Matrix a = RandomMatrix({3, 5}, kFloat);
  std::string path = testing::TempDir() + "linvo_matrix_test.bin";
  a.Dump(path);
  Matrix b = LoadMatrix({3, 5}, kFloat, path);
  EXPECT_TRUE(a == b);
  Matrix wrong(Shape{4}, kFloat);
  try {
    wrong.LoadFromFile(path);
    FAIL();
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()), "File " + path + " size mismatch: 60 vs 16");
  }
  std::remove(path.c_str());
  try {
    wrong.LoadFromFile(path);
    FAIL();
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()), "File not found " + path);
  }
  testing::internal::CaptureStdout();
  a.Dump("/nonexistent-dir/x.bin");
  std::string log = testing::internal::GetCapturedStdout();
  EXPECT_TRUE(
      std::regex_match(log, std::regex(R"(\[[-0-9: ]{19}\] \[E\] \[LINVO\] Check '0' fail!\n)")))
      << log;
}

TEST(Logger, LevelLettersAndFormat) {
  EXPECT_STREQ(Logger::LevelStr(0), "D");
  EXPECT_STREQ(Logger::LevelStr(2), "W");
  EXPECT_STREQ(Logger::LevelStr(4), "UNKNOWN");
  testing::internal::CaptureStdout();
  { Logger(kLogInfo, "LINVO", __FILE__, __LINE__) << "value " << 3; }
  std::string log = testing::internal::GetCapturedStdout();
  EXPECT_TRUE(std::regex_match(log, std::regex(R"(\[[-0-9: ]{19}\] \[I\] \[LINVO\] value 3\n)")))
      << log;
}

}  // namespace
