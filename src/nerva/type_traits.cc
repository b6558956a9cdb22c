#include "nerva/type_traits.h"

#include <cfloat>
#include <cstdio>
#include <iomanip>
#include <map>
#include <sstream>
#include <stdexcept>

#include "nerva/util.h"

namespace nerva {
namespace {

constexpr int kNumTypes = 15;
// Bit i set: type i is signed (values 0-7 and 12-14, kBool included).
constexpr uint32_t kSignedMask = 0x70FF;

struct TypeFacts {
  const char* name;
  size_t size;
  DataType accum;
  const char* max_text;
  const char* min_text;
};

// Float and double extremes are formatted at run time; their entries are unused.
const TypeFacts kFacts[kNumTypes] = {
    {"DataType::kHalf", 2, kFloat, "31743", "64511"},
    {"DataType::kBFloat", 2, kFloat, "32639", "65407"},
    {"DataType::kFloat", 4, kFloat, nullptr, nullptr},
    {"DataType::kDouble", 8, kDouble, nullptr, nullptr},
    {"DataType::kInt8", 1, kInt32, "127", "-128"},
    {"DataType::kInt16", 2, kInt32, "32767", "-32768"},
    {"DataType::kInt32", 4, kInt64, "2147483647", "-2147483648"},
    {"DataType::kInt64", 8, kInt64, "9223372036854775807ll", "-9223372036854775808ll"},
    {"DataType::kUInt8", 1, kInt32, "255", "0"},
    {"DataType::kUInt16", 2, kInt32, "65535", "0"},
    {"DataType::kUInt32", 4, kInt64, "4294967295u", "0u"},
    {"DataType::kUInt64", 8, kUInt64, "18446744073709551615ull", "0ull"},
    {"DataType::kFloat8_e4m3fn", 1, kFloat, "126", "254"},
    {"DataType::kFloat8_e5m2", 1, kFloat, "123", "251"},
    {"DataType::kBool", 1, kInt32, "1", "0"},
};

bool IsKnown(DataType type) {
  return type >= 0 && type < kNumTypes;
}

const TypeFacts& Facts(DataType type) {
  if (!IsKnown(type))
    throw std::invalid_argument(StrCat("Unsupport data type: ", static_cast<int>(type)));
  return kFacts[type];
}

// "%f" of the largest float/double: wide enough buffers for every digit.
std::string FormatExtreme(DataType type, bool negative) {
  if (type == kFloat) {
    char text[58];
    std::snprintf(text, sizeof(text), "%f", negative ? -FLT_MAX : FLT_MAX);
    return std::string(text) + "f";
  }
  char text[328];
  std::snprintf(text, sizeof(text), "%f", negative ? -DBL_MAX : DBL_MAX);
  return text;
}

// Rank of each type in arithmetic promotion.
const std::map<DataType, int>& MathTypeOrder() {
  static const std::map<DataType, int> order = {
      {kBool, 1},         {kInt8, 2},   {kUInt8, 3},   {kInt16, 4},  {kUInt16, 5},
      {kInt32, 6},        {kUInt32, 7}, {kInt64, 8},   {kUInt64, 9}, {kFloat8_e4m3fn, 10},
      {kFloat8_e5m2, 11}, {kHalf, 12},  {kBFloat, 13}, {kFloat, 14}, {kDouble, 15},
  };
  return order;
}

int MathRank(DataType type) {
  const auto& order = MathTypeOrder();
  auto it = order.find(type);
  if (it == order.end()) {
    throw std::runtime_error("Math binary type conversion don't support type " +
                             TypeTraitsHelper::Str(type));
  }
  return it->second;
}

}  // namespace

size_t TypeTraitsHelper::GetSize(DataType type) {
  if (type == -1) return 0;
  return Facts(type).size;
}

size_t TypeTraitsHelper::GetBits(DataType type) {
  return GetSize(type) * 8;
}

std::string TypeTraitsHelper::Str(DataType type) {
  if (!IsKnown(type))
    throw std::invalid_argument(StrCat("Str unsupport data type: ", static_cast<int>(type)));
  return kFacts[type].name;
}

bool TypeTraitsHelper::IsIntegral(DataType type, bool include_bool) {
  Facts(type);
  if (type == kBool) return include_bool;
  return type >= kInt8 && type <= kUInt64;
}

bool TypeTraitsHelper::IsFloattingPoint(DataType type) {
  return !IsIntegral(type, true);
}

bool TypeTraitsHelper::IsSigned(DataType type) {
  Facts(type);
  return (kSignedMask >> type) & 1u;
}

DataType TypeTraitsHelper::GetAccumType(DataType type) {
  return Facts(type).accum;
}

DataType TypeTraitsHelper::TypePromote(DataType a, DataType b) {
  const int rank_a = MathRank(a);
  const int rank_b = MathRank(b);
  const int top = std::max(rank_a, rank_b);
  if (top < MathRank(kUInt32)) return kInt32;
  return rank_a >= rank_b ? a : b;
}

std::string TypeTraitsHelper::GetMaxValueStr(DataType type) {
  const TypeFacts& facts = Facts(type);
  return facts.max_text ? facts.max_text : FormatExtreme(type, false);
}

std::string TypeTraitsHelper::GetMinValueStr(DataType type) {
  const TypeFacts& facts = Facts(type);
  return facts.min_text ? facts.min_text : FormatExtreme(type, true);
}

std::ostream& operator<<(std::ostream& os, DataType type) {
  return os << TypeTraitsHelper::Str(type);
}

std::string FloatToString(float value, size_t precision, bool with_suffix) {
  std::ostringstream os;
  os << std::fixed << std::setprecision(static_cast<int>(precision)) << value;
  if (with_suffix) os << "f";
  return os.str();
}

}  // namespace nerva
