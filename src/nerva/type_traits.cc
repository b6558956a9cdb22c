#include "nerva/type_traits.h"

#include <iomanip>
#include <sstream>

#include "linvo/data_type.h"

namespace nerva {
namespace {

// The matrix library numbers its element types as nerva does and keeps the
// one table of their facts (with the same messages), so the queries forward.
using Facts = linvo::TypeTraitsHelper;

linvo::DataType L(DataType type) {
  return static_cast<linvo::DataType>(type);
}

}  // namespace

size_t TypeTraitsHelper::GetSize(DataType type) {
  return Facts::GetSize(L(type));
}
size_t TypeTraitsHelper::GetBits(DataType type) {
  return Facts::GetBits(L(type));
}
std::string TypeTraitsHelper::Str(DataType type) {
  return Facts::Str(L(type));
}

bool TypeTraitsHelper::IsIntegral(DataType type, bool include_bool) {
  return Facts::IsIntegral(L(type), include_bool);
}

bool TypeTraitsHelper::IsFloattingPoint(DataType type) {
  return Facts::IsFloattingPoint(L(type));
}
bool TypeTraitsHelper::IsSigned(DataType type) {
  return Facts::IsSigned(L(type));
}

DataType TypeTraitsHelper::GetAccumType(DataType type) {
  return static_cast<DataType>(Facts::GetAccumType(L(type)));
}

DataType TypeTraitsHelper::TypePromote(DataType a, DataType b) {
  return static_cast<DataType>(Facts::TypePromote(L(a), L(b)));
}

std::string TypeTraitsHelper::GetMaxValueStr(DataType type) {
  return Facts::GetMaxValueStr(L(type));
}

std::string TypeTraitsHelper::GetMinValueStr(DataType type) {
  return Facts::GetMinValueStr(L(type));
}

std::ostream& operator<<(std::ostream& os, DataType type) {
  // Messages about a bad type must not fail while printing it.
  if (type < kHalf || type > kBool) return os << "DataType(" << static_cast<int>(type) << ")";
  return os << TypeTraitsHelper::Str(type);
}

std::string FloatToString(float value, size_t precision, bool with_suffix) {
  std::ostringstream os;
  os << std::fixed << std::setprecision(static_cast<int>(precision)) << value;
  if (with_suffix) os << "f";
  return os.str();
}

}  // namespace nerva
