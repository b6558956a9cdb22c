#include "nerva/type_traits.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cstdio>

#include "test_util.h"

namespace nerva {
namespace {

const DataType kNone = static_cast<DataType>(-1);

struct TypeRow {
  DataType type;
  const char* name;
  size_t size;
  bool integral;  // bools excluded
  bool is_signed;
  DataType accum;
  const char* max_text;
  const char* min_text;
};

const TypeRow kRows[] = {
    {kHalf, "DataType::kHalf", 2, false, true, kFloat, "31743", "64511"},
    {kBFloat, "DataType::kBFloat", 2, false, true, kFloat, "32639", "65407"},
    {kFloat, "DataType::kFloat", 4, false, true, kFloat, nullptr, nullptr},
    {kDouble, "DataType::kDouble", 8, false, true, kDouble, nullptr, nullptr},
    {kInt8, "DataType::kInt8", 1, true, true, kInt32, "127", "-128"},
    {kInt16, "DataType::kInt16", 2, true, true, kInt32, "32767", "-32768"},
    {kInt32, "DataType::kInt32", 4, true, true, kInt64, "2147483647", "-2147483648"},
    {kInt64, "DataType::kInt64", 8, true, true, kInt64, "9223372036854775807ll",
     "-9223372036854775808ll"},
    {kUInt8, "DataType::kUInt8", 1, true, false, kInt32, "255", "0"},
    {kUInt16, "DataType::kUInt16", 2, true, false, kInt32, "65535", "0"},
    {kUInt32, "DataType::kUInt32", 4, true, false, kInt64, "4294967295u", "0u"},
    {kUInt64, "DataType::kUInt64", 8, true, false, kUInt64, "18446744073709551615ull", "0ull"},
    {kFloat8_e4m3fn, "DataType::kFloat8_e4m3fn", 1, false, true, kFloat, "126", "254"},
    {kFloat8_e5m2, "DataType::kFloat8_e5m2", 1, false, true, kFloat, "123", "251"},
    {kBool, "DataType::kBool", 1, false, true, kInt32, "1", "0"},
};

TEST(TypeTraits, EveryTypeFacts) {
  for (const TypeRow& row : kRows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(TypeTraitsHelper::Str(row.type), row.name);
    EXPECT_EQ(TypeTraitsHelper::GetSize(row.type), row.size);
    EXPECT_EQ(TypeTraitsHelper::GetBits(row.type), row.size * 8);
    EXPECT_EQ(TypeTraitsHelper::IsIntegral(row.type, false), row.integral);
    EXPECT_EQ(TypeTraitsHelper::IsIntegral(row.type, true), row.integral || row.type == kBool);
    EXPECT_EQ(TypeTraitsHelper::IsFloattingPoint(row.type), !row.integral && row.type != kBool);
    EXPECT_EQ(TypeTraitsHelper::IsSigned(row.type), row.is_signed);
    EXPECT_EQ(TypeTraitsHelper::GetAccumType(row.type), row.accum);
    if (row.max_text) {
      EXPECT_EQ(TypeTraitsHelper::GetMaxValueStr(row.type), row.max_text);
      EXPECT_EQ(TypeTraitsHelper::GetMinValueStr(row.type), row.min_text);
    }
    std::ostringstream os;
    os << row.type;
    EXPECT_EQ(os.str(), row.name);
  }
}

TEST(TypeTraits, FloatingExtremesAreFullPrintfDigits) {
  EXPECT_EQ(TypeTraitsHelper::GetMaxValueStr(kFloat),
            "340282346638528859811704183484516925440.000000f");
  EXPECT_EQ(TypeTraitsHelper::GetMinValueStr(kFloat),
            "-340282346638528859811704183484516925440.000000f");
  char expected[400];
  std::snprintf(expected, sizeof(expected), "%f", DBL_MAX);
  EXPECT_EQ(TypeTraitsHelper::GetMaxValueStr(kDouble), expected);
  EXPECT_EQ(TypeTraitsHelper::GetMinValueStr(kDouble), std::string("-") + expected);
}

TEST(TypeTraits, NoTypeAndOutOfRangeValues) {
  EXPECT_EQ(TypeTraitsHelper::GetSize(kNone), 0u);
  EXPECT_THROW_MSG(TypeTraitsHelper::Str(kNone), std::invalid_argument,
                   "Str unsupport data type: -1");
  const DataType k15 = static_cast<DataType>(15);
  EXPECT_THROW_MSG(TypeTraitsHelper::GetSize(k15), std::invalid_argument,
                   "Unsupport data type: 15");
  EXPECT_THROW_MSG(TypeTraitsHelper::GetBits(k15), std::invalid_argument,
                   "Unsupport data type: 15");
  EXPECT_THROW_MSG(TypeTraitsHelper::IsIntegral(kNone, true), std::invalid_argument,
                   "Unsupport data type: -1");
  EXPECT_THROW_MSG(TypeTraitsHelper::IsFloattingPoint(k15), std::invalid_argument,
                   "Unsupport data type: 15");
  EXPECT_THROW_MSG(TypeTraitsHelper::IsSigned(kNone), std::invalid_argument,
                   "Unsupport data type: -1");
  EXPECT_THROW_MSG(TypeTraitsHelper::GetAccumType(k15), std::invalid_argument,
                   "Unsupport data type: 15");
  EXPECT_THROW_MSG(TypeTraitsHelper::GetMaxValueStr(kNone), std::invalid_argument,
                   "Unsupport data type: -1");
  EXPECT_THROW_MSG(TypeTraitsHelper::GetMinValueStr(k15), std::invalid_argument,
                   "Unsupport data type: 15");
  EXPECT_THROW_MSG(TypeTraitsHelper::TypePromote(kFloat, kNone), std::invalid_argument,
                   "Str unsupport data type: -1");
}

TEST(TypeTraits, Promotion) {
  struct Case {
    DataType a, b, expected;
  };
  const Case cases[] = {
      {kBool, kBool, kInt32},
      {kUInt16, kInt8, kInt32},
      {kInt8, kUInt8, kInt32},
      {kInt32, kInt16, kInt32},
      {kUInt32, kInt8, kUInt32},
      {kUInt32, kInt32, kUInt32},
      {kInt64, kUInt32, kInt64},
      {kUInt64, kInt64, kUInt64},
      {kFloat8_e4m3fn, kInt64, kFloat8_e4m3fn},
      {kFloat8_e5m2, kFloat8_e4m3fn, kFloat8_e5m2},
      {kHalf, kBFloat, kBFloat},
      {kBFloat, kFloat, kFloat},
      {kUInt8, kDouble, kDouble},
      {kDouble, kHalf, kDouble},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(TypeTraitsHelper::TypePromote(c.a, c.b), c.expected) << c.a << " " << c.b;
    EXPECT_EQ(TypeTraitsHelper::TypePromote(c.b, c.a), c.expected) << c.b << " " << c.a;
  }
}

TEST(TypeTraits, FloatToString) {
  EXPECT_EQ(FloatToString(1.0f, 2, false), "1.00");
  EXPECT_EQ(FloatToString(0.5f, 3, true), "0.500f");
  EXPECT_EQ(FloatToString(-2.25f, 1, false), "-2.2");
  EXPECT_EQ(FloatToString(1e20f, 0, true), "100000002004087734272f");
  EXPECT_EQ(FloatToString(0.1f, 9, false), "0.100000001");
}

struct OpaqueOption {};

TEST(TypeSignature, ArgumentTexts) {
  using H = TypeSignatureHelper;
  EXPECT_EQ(H::Str<const TensorOption&>(), "const TensorOption&");
  EXPECT_EQ(H::Str<Buffer&>(), "Buffer&");
  EXPECT_EQ(H::Str<const Buffer&>(), "const Buffer&");
  EXPECT_EQ(H::Str<Buffer>(), "Buffer");
  EXPECT_EQ(H::Str<const Tensor&>(), "const Tensor&");
  EXPECT_EQ(H::Str<std::shared_ptr<ISessionImpl>&>(), "std::shared_ptr<ISessionImpl>&");
  EXPECT_EQ(H::Str<MemoryFlags&>(), "MemoryFlags&");
  EXPECT_EQ(H::Str<long&>(), "long&");
  EXPECT_EQ(H::Str<int&>(), "int&");
  EXPECT_EQ(H::Str<void*&>(), "void*&");
  EXPECT_EQ(H::Str<const void*&>(), "const void*&");
  EXPECT_EQ(H::Str<void*>(), "void*");
  // A vector has the text of its element; constness is kept.
  EXPECT_EQ(H::Str<const std::vector<TensorOption>&>(), "const TensorOption&");
  EXPECT_EQ(H::Str<std::vector<Buffer>&>(), "Buffer&");
  EXPECT_EQ(H::Str<const OpaqueOption&>(),
            std::string("const ") + typeid(OpaqueOption).name() + "&");
}

TEST(TypeSignature, ArgumentLists) {
  using H = TypeSignatureHelper;
  EXPECT_EQ(
      (H::GetSignatures<const TensorOption&, const Buffer&, const TensorOption&, Buffer&>(", ")),
      "const TensorOption&, const Buffer&, const TensorOption&, Buffer&");
  EXPECT_EQ((H::GetSignatures<std::shared_ptr<ISessionImpl>&, MemoryFlags&, long&, void*&>(", ")),
            "std::shared_ptr<ISessionImpl>&, MemoryFlags&, long&, void*&");
  EXPECT_EQ((H::GetSignatures<int&>(", ")), "int&");
  EXPECT_EQ((H::GetSignatures<int, long>("|")), "int|long");
}

}  // namespace
}  // namespace nerva
