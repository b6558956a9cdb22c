#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>

#include "test_util.h"

namespace {

using namespace linvo;
using H = TypeTraitsHelper;

TEST(DataType, EnumeratorValuesAndScopedSpelling) {
  EXPECT_EQ(static_cast<int>(DataType::kHalf), 0);
  EXPECT_EQ(static_cast<int>(kFloat8_e5m2), 13);
  EXPECT_EQ(static_cast<int>(DataType::kBool), 14);
  EXPECT_EQ(sizeof(DataType), 4u);
}

TEST(DataType, PerTypeFacts) {
  struct Row {
    DataType type;
    size_t size;
    DataType accum;
    bool is_signed, integral;
    const char* name;
  };
  const Row rows[] = {
      {kHalf, 2, kFloat, true, false, "DataType::kHalf"},
      {kBFloat, 2, kFloat, true, false, "DataType::kBFloat"},
      {kFloat, 4, kFloat, true, false, "DataType::kFloat"},
      {kDouble, 8, kDouble, true, false, "DataType::kDouble"},
      {kInt8, 1, kInt32, true, true, "DataType::kInt8"},
      {kInt16, 2, kInt32, true, true, "DataType::kInt16"},
      {kInt32, 4, kInt64, true, true, "DataType::kInt32"},
      {kInt64, 8, kInt64, true, true, "DataType::kInt64"},
      {kUInt8, 1, kInt32, false, true, "DataType::kUInt8"},
      {kUInt16, 2, kInt32, false, true, "DataType::kUInt16"},
      {kUInt32, 4, kInt64, false, true, "DataType::kUInt32"},
      {kUInt64, 8, kUInt64, false, true, "DataType::kUInt64"},
      {kFloat8_e4m3fn, 1, kFloat, true, false, "DataType::kFloat8_e4m3fn"},
      {kFloat8_e5m2, 1, kFloat, true, false, "DataType::kFloat8_e5m2"},
      {kBool, 1, kInt32, true, false, "DataType::kBool"},
  };
  for (const Row& r : rows) {
    EXPECT_EQ(H::GetSize(r.type), r.size) << r.name;
    EXPECT_EQ(H::GetBits(r.type), r.size * 8) << r.name;
    EXPECT_EQ(H::GetAccumType(r.type), r.accum) << r.name;
    EXPECT_EQ(H::IsSigned(r.type), r.is_signed) << r.name;
    EXPECT_EQ(H::IsIntegral(r.type, false), r.integral) << r.name;
    EXPECT_EQ(H::Str(r.type), r.name);
    std::ostringstream ss;
    ss << r.type;
    EXPECT_EQ(ss.str(), r.name);
  }
  EXPECT_TRUE(H::IsIntegral(kBool, true));
  EXPECT_FALSE(H::IsFloattingPoint(kBool));
  EXPECT_TRUE(H::IsFloattingPoint(kFloat8_e4m3fn));
  EXPECT_FALSE(H::IsFloattingPoint(kUInt8));
}

TEST(DataType, UnsupportedValues) {
  EXPECT_EQ(H::GetSize(kNoType), 0u);
  try {
    H::Str(kNoType);
    FAIL();
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "Str unsupport data type: -1");
  }
  try {
    H::IsSigned(static_cast<DataType>(15));
    FAIL();
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "Unsupport data type: 15");
  }
  EXPECT_THROW(H::GetAccumType(kNoType), std::invalid_argument);
  EXPECT_THROW(Matrix(Shape{2}, static_cast<DataType>(20)), std::invalid_argument);
}

TEST(DataType, Promotion) {
  struct Case {
    DataType a, b, expected;
  };
  const Case cases[] = {
      {kInt8, kInt8, kInt32},
      {kHalf, kBFloat, kBFloat},
      {kUInt32, kInt8, kUInt32},
      {kBool, kBool, kInt32},
      {kUInt16, kInt16, kInt32},
      {kInt64, kUInt32, kInt64},
      {kUInt64, kInt64, kUInt64},
      {kFloat8_e4m3fn, kInt64, kFloat8_e4m3fn},
      {kFloat8_e5m2, kFloat8_e4m3fn, kFloat8_e5m2},
      {kFloat, kDouble, kDouble},
      {kHalf, kUInt64, kHalf},
      {kInt32, kUInt32, kUInt32},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(TypePromote(c.a, c.b), c.expected) << c.a << " " << c.b;
    EXPECT_EQ(TypePromote(c.b, c.a), c.expected) << c.b << " " << c.a;
  }
  EXPECT_THROW(TypePromote(kNoType, kFloat), std::invalid_argument);
}

TEST(DataType, LimitTexts) {
  EXPECT_EQ(H::GetMaxValueStr(kUInt16), "65535");
  EXPECT_EQ(H::GetMinValueStr(kInt8), "-128");
  EXPECT_EQ(H::GetMaxValueStr(kHalf), "31743");
  EXPECT_EQ(H::GetMinValueStr(kUInt64), "0ull");
  EXPECT_EQ(H::GetMaxValueStr(kFloat), "340282346638528859811704183484516925440.000000f");
  EXPECT_EQ(H::GetMinValueStr(kFloat), "-340282346638528859811704183484516925440.000000f");
  EXPECT_EQ(H::GetMaxValueStr(kDouble).size(), 309u + 7u);
  // Packed float texts are the bit patterns of the finite extremes.
  EXPECT_EQ(HalfToFloat(std::stoi(H::GetMaxValueStr(kHalf))), 65504.0f);
  EXPECT_EQ(BFloatToFloat(std::stoi(H::GetMinValueStr(kBFloat))), -BFloatToFloat(0x7F7F));
  EXPECT_EQ(Float8E4M3ToFloat(std::stoi(H::GetMaxValueStr(kFloat8_e4m3fn))), 448.0f);
  EXPECT_EQ(Float8E5M2ToFloat(std::stoi(H::GetMinValueStr(kFloat8_e5m2))), -57344.0f);
}

TEST(DataType, TypeTraitsUnderlying) {
  static_assert(std::is_same_v<TypeTraits<kHalf>::underlying, uint16_t>);
  static_assert(std::is_same_v<TypeTraits<kInt64>::underlying, int64_t>);
  static_assert(std::is_same_v<TypeTraits<kBool>::underlying, uint8_t>);
  static_assert(std::is_same_v<TypeTraits<kFloat8_e5m2>::underlying, uint8_t>);
  SUCCEED();
}

}  // namespace
