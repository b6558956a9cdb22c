#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <vector>

namespace nerva {

// Element type of every tensor. -1 stands for "no type".
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

// Static per-type facts. Every query but GetSize rejects values outside 0..14.
class TypeTraitsHelper {
 public:
  static size_t GetSize(DataType type);
  static size_t GetBits(DataType type);
  static std::string Str(DataType type);
  static bool IsIntegral(DataType type, bool include_bool);
  static bool IsFloattingPoint(DataType type);
  static bool IsSigned(DataType type);
  static DataType GetAccumType(DataType type);
  static DataType TypePromote(DataType a, DataType b);
  // Literal texts of the largest and smallest finite value, for substitution
  // into device program sources. Storage-only float types give the unsigned
  // value of their bit pattern.
  static std::string GetMaxValueStr(DataType type);
  static std::string GetMinValueStr(DataType type);
};

std::ostream& operator<<(std::ostream& os, DataType type);

// Fixed-notation text of `value` with `precision` digits after the point,
// followed by "f" when `with_suffix` is set (an OpenCL C float literal).
std::string FloatToString(float value, size_t precision, bool with_suffix);

// Registry signature texts. Types without a kStr use their RTTI name.
template <typename T>
struct TypeSignature {};

class ISessionImpl;
class Buffer;
class Tensor;
struct TensorOption;
enum MemoryFlags : uint32_t;

#define NERVA_TYPE_SIGNATURE(Type, Text)      \
  template <>                                 \
  struct TypeSignature<Type> {                \
    static constexpr const char* kStr = Text; \
  }
NERVA_TYPE_SIGNATURE(MemoryFlags, "MemoryFlags");
NERVA_TYPE_SIGNATURE(TensorOption, "TensorOption");
NERVA_TYPE_SIGNATURE(Buffer, "Buffer");
NERVA_TYPE_SIGNATURE(Tensor, "Tensor");
NERVA_TYPE_SIGNATURE(std::shared_ptr<ISessionImpl>, "std::shared_ptr<ISessionImpl>");
NERVA_TYPE_SIGNATURE(int, "int");
NERVA_TYPE_SIGNATURE(long, "long");
NERVA_TYPE_SIGNATURE(void, "void");
#undef NERVA_TYPE_SIGNATURE

namespace detail {
template <typename T, typename = void>
struct HasSignatureText : std::false_type {};
template <typename T>
struct HasSignatureText<T, std::void_t<decltype(TypeSignature<T>::kStr)>> : std::true_type {};

template <typename T>
struct StripVector {
  using type = T;
};
template <typename T, typename A>
struct StripVector<std::vector<T, A>> {
  using type = T;
};
template <typename T, typename A>
struct StripVector<const std::vector<T, A>> {
  using type = const T;
};
}  // namespace detail

class TypeSignatureHelper {
 public:
  // The text of one argument type: "const " + base text + "*" + "&" as they apply.
  template <typename T>
  static std::string Str() {
    using NoRef = std::remove_reference_t<T>;
    constexpr bool is_pointer = std::is_pointer_v<NoRef>;
    using Pointee = std::conditional_t<is_pointer, std::remove_pointer_t<NoRef>, NoRef>;
    using Element = typename detail::StripVector<Pointee>::type;
    using Bare = std::remove_cv_t<Element>;
    std::string text = std::is_const_v<Element> ? "const " : "";
    text += BaseText<Bare>();
    if (is_pointer) text += "*";
    if (std::is_lvalue_reference_v<T>) text += "&";
    return text;
  }

  // The texts of all types joined by `separator`, with none after the last.
  template <typename... Ts>
  static std::string GetSignatures(const std::string& separator) {
    std::string out;
    bool first = true;
    ((out += first ? "" : separator, out += Str<Ts>(), first = false), ...);
    return out;
  }

 private:
  template <typename X>
  static std::string BaseText() {
    if constexpr (detail::HasSignatureText<X>::value) {
      return TypeSignature<X>::kStr;
    } else {
      return typeid(X).name();
    }
  }
};

}  // namespace nerva
