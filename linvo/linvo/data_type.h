#pragma once

#include <cstdint>
#include <ostream>
#include <string>

namespace linvo {

// Element types. The numbering is part of the interface: callers convert to it by value.
// Unscoped so that both linvo::kFloat and linvo::DataType::kFloat name the same value; -1 means
// "no type".
enum DataType : int32_t {
  kHalf = 0,
  kBFloat = 1,
  kFloat = 2,
  kDouble = 3,
  kInt8 = 4,
  kInt16 = 5,
  kInt32 = 6,
  kInt64 = 7,
  kUInt8 = 8,
  kUInt16 = 9,
  kUInt32 = 10,
  kUInt64 = 11,
  kFloat8_e4m3fn = 12,
  kFloat8_e5m2 = 13,
  kBool = 14,
};

constexpr DataType kNoType = static_cast<DataType>(-1);
constexpr int kNumDataTypes = 15;

// Run-time facts about each element type. Values outside 0..14 throw std::invalid_argument.
class TypeTraitsHelper {
 public:
  static size_t GetSize(DataType type);  // -1 gives 0
  static size_t GetBits(DataType type);
  static std::string Str(DataType type);
  static bool IsIntegral(DataType type, bool include_bool);
  static bool IsFloattingPoint(DataType type);
  static bool IsSigned(DataType type);
  static DataType GetAccumType(DataType type);
  static DataType TypePromote(DataType a, DataType b);
  static std::string GetMaxValueStr(DataType type);
  static std::string GetMinValueStr(DataType type);
};

// Result type of a mixed binary arithmetic operation.
DataType TypePromote(DataType a, DataType b);

std::ostream& operator<<(std::ostream& os, DataType type);

// Compile-time facts: the storage type of each element type and its accumulation type.
// Half, bfloat16 and the 8-bit float types are stored as raw bit patterns.
template <DataType E>
struct TypeTraits;

#define LINVO_TYPE_TRAITS(E, T, ACC)       \
  template <>                              \
  struct TypeTraits<E> {                   \
    using underlying = T;                  \
    static constexpr DataType accum = ACC; \
    static constexpr DataType value = E;   \
  };

LINVO_TYPE_TRAITS(kHalf, uint16_t, kFloat)
LINVO_TYPE_TRAITS(kBFloat, uint16_t, kFloat)
LINVO_TYPE_TRAITS(kFloat, float, kFloat)
LINVO_TYPE_TRAITS(kDouble, double, kDouble)
LINVO_TYPE_TRAITS(kInt8, int8_t, kInt32)
LINVO_TYPE_TRAITS(kInt16, int16_t, kInt32)
LINVO_TYPE_TRAITS(kInt32, int32_t, kInt64)
LINVO_TYPE_TRAITS(kInt64, int64_t, kInt64)
LINVO_TYPE_TRAITS(kUInt8, uint8_t, kInt32)
LINVO_TYPE_TRAITS(kUInt16, uint16_t, kInt32)
LINVO_TYPE_TRAITS(kUInt32, uint32_t, kInt64)
LINVO_TYPE_TRAITS(kUInt64, uint64_t, kUInt64)
LINVO_TYPE_TRAITS(kFloat8_e4m3fn, uint8_t, kFloat)
LINVO_TYPE_TRAITS(kFloat8_e5m2, uint8_t, kFloat)
LINVO_TYPE_TRAITS(kBool, uint8_t, kInt32)

#undef LINVO_TYPE_TRAITS

template <DataType E>
using Underlying = typename TypeTraits<E>::underlying;

// Types stored as bit patterns whose arithmetic is done in float.
constexpr bool IsPackedFloat(DataType t) {
  return t == kHalf || t == kBFloat || t == kFloat8_e4m3fn || t == kFloat8_e5m2;
}

}  // namespace linvo
