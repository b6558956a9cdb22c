#include "linvo/data_type.h"

#include <algorithm>
#include <cfloat>
#include <cstdio>
#include <sstream>
#include <stdexcept>

namespace linvo {
namespace {

struct TypeInfo {
  const char* name;
  size_t size;
  DataType accum;
  const char* max_str;
  const char* min_str;
};

std::string FormatFloatLimit(double value, const char* suffix, size_t buffer_size) {
  std::string buffer(buffer_size, '\0');
  int n = std::snprintf(&buffer[0], buffer_size, "%f", value);
  buffer.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return buffer + suffix;
}

const TypeInfo& Info(DataType type) {
  // Max/min texts of the packed float types are the bit patterns of their finite extremes.
  static const TypeInfo kInfos[kNumDataTypes] = {
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
  if (type < 0 || type >= kNumDataTypes) {
    std::ostringstream ss;
    ss << "Unsupport data type: " << static_cast<int32_t>(type);
    throw std::invalid_argument(ss.str());
  }
  return kInfos[type];
}

// Place of each type in the promotion order, indexed by the type's value.
int MathTypeOrder(DataType type) {
  static const int kOrder[kNumDataTypes] = {12, 13, 14, 15, 1, 4, 6, 8, 2, 5, 7, 9, 10, 11, 3};
  if (type < 0 || type >= kNumDataTypes) {
    throw std::runtime_error("Math binary type conversion don't support type " +
                             TypeTraitsHelper::Str(type));
  }
  return kOrder[type];
}

}  // namespace

size_t TypeTraitsHelper::GetSize(DataType type) {
  return type == kNoType ? 0 : Info(type).size;
}

size_t TypeTraitsHelper::GetBits(DataType type) {
  return GetSize(type) * 8;
}

std::string TypeTraitsHelper::Str(DataType type) {
  if (type < 0 || type >= kNumDataTypes) {
    std::ostringstream ss;
    ss << "Str unsupport data type: " << static_cast<int32_t>(type);
    throw std::invalid_argument(ss.str());
  }
  return Info(type).name;
}

bool TypeTraitsHelper::IsIntegral(DataType type, bool include_bool) {
  Info(type);
  if (type == kBool) return include_bool;
  return type >= kInt8 && type <= kUInt64;
}

bool TypeTraitsHelper::IsFloattingPoint(DataType type) {
  return !IsIntegral(type, true);
}

bool TypeTraitsHelper::IsSigned(DataType type) {
  Info(type);
  return (0x70FF >> type) & 1;
}

DataType TypeTraitsHelper::GetAccumType(DataType type) {
  return Info(type).accum;
}

DataType TypeTraitsHelper::TypePromote(DataType a, DataType b) {
  return linvo::TypePromote(a, b);
}

std::string TypeTraitsHelper::GetMaxValueStr(DataType type) {
  const TypeInfo& info = Info(type);
  if (type == kFloat) return FormatFloatLimit(FLT_MAX, "f", 58);
  if (type == kDouble) return FormatFloatLimit(DBL_MAX, "", 328);
  return info.max_str;
}

std::string TypeTraitsHelper::GetMinValueStr(DataType type) {
  const TypeInfo& info = Info(type);
  if (type == kFloat) return FormatFloatLimit(-FLT_MAX, "f", 58);
  if (type == kDouble) return FormatFloatLimit(-DBL_MAX, "", 328);
  return info.min_str;
}

DataType TypePromote(DataType a, DataType b) {
  int order_a = MathTypeOrder(a);
  int order_b = MathTypeOrder(b);
  if (std::max(order_a, order_b) < 7) return kInt32;
  return order_a >= order_b ? a : b;
}

std::ostream& operator<<(std::ostream& os, DataType type) {
  return os << TypeTraitsHelper::Str(type);
}

}  // namespace linvo
