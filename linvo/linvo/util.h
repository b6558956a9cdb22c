#pragma once

#include <sstream>
#include <stdexcept>
#include <string>

#include "linvo/data_type.h"

namespace linvo {

enum LogLevel : int { kLogDebug = 0, kLogInfo = 1, kLogWarning = 2, kLogError = 3 };

// One log record. Text is collected with operator<< and written, with the local time, the level
// letter and the tag, to standard output when the record goes out of scope.
class Logger {
 public:
  Logger(int level, const char* tag, const char* file, int line);
  ~Logger();
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  template <typename T>
  Logger& operator<<(const T& value) {
    stream_ << value;
    return *this;
  }

  static const char* LevelStr(int level);

 private:
  int level_;
  const char* tag_;
  const char* file_;
  int line_;
  std::ostringstream stream_;
};

// Logs "Check '<condition>' fail!" at error level when ok is false. Returns ok, so callers can
// stop early when going on would touch memory out of bounds.
bool CheckOrLog(bool ok, const char* condition, const char* file, int line);

// Conditions are logged as written, so comparisons of sizes and dimension counts of mixed
// signedness are allowed in them without a warning.
#define LINVO_CHECK(cond)                                     \
  ::linvo::CheckOrLog(                                        \
      [&]() -> bool {                                         \
        _Pragma("GCC diagnostic push");                       \
        _Pragma("GCC diagnostic ignored \"-Wsign-compare\""); \
        return static_cast<bool>(cond);                       \
        _Pragma("GCC diagnostic pop");                        \
      }(),                                                    \
      #cond, __FILE__, __LINE__)

template <DataType E>
struct TypeTag {
  static constexpr DataType value = E;
};

[[noreturn]] void ThrowUnsupportedType(DataType type);

// Calls fn(TypeTag<E>{}) for the run-time type value; every function dispatches through this.
template <typename Fn>
decltype(auto) DispatchType(DataType type, Fn&& fn) {
  switch (type) {
    case kHalf:
      return fn(TypeTag<kHalf>{});
    case kBFloat:
      return fn(TypeTag<kBFloat>{});
    case kFloat:
      return fn(TypeTag<kFloat>{});
    case kDouble:
      return fn(TypeTag<kDouble>{});
    case kInt8:
      return fn(TypeTag<kInt8>{});
    case kInt16:
      return fn(TypeTag<kInt16>{});
    case kInt32:
      return fn(TypeTag<kInt32>{});
    case kInt64:
      return fn(TypeTag<kInt64>{});
    case kUInt8:
      return fn(TypeTag<kUInt8>{});
    case kUInt16:
      return fn(TypeTag<kUInt16>{});
    case kUInt32:
      return fn(TypeTag<kUInt32>{});
    case kUInt64:
      return fn(TypeTag<kUInt64>{});
    case kFloat8_e4m3fn:
      return fn(TypeTag<kFloat8_e4m3fn>{});
    case kFloat8_e5m2:
      return fn(TypeTag<kFloat8_e5m2>{});
    case kBool:
      return fn(TypeTag<kBool>{});
  }
  ThrowUnsupportedType(type);
}

// Dispatches on a pair of types (input, output).
template <typename Fn>
void DispatchTypePair(DataType in, DataType out, Fn&& fn) {
  DispatchType(in,
               [&](auto in_tag) { DispatchType(out, [&](auto out_tag) { fn(in_tag, out_tag); }); });
}

}  // namespace linvo
