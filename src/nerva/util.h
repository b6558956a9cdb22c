#pragma once

#include <cstddef>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "nerva/array_ref.h"

namespace nerva {

// Writes a list as "[a, b, c]", the form every message uses for integer lists.
template <typename T>
std::ostream& PrintList(std::ostream& os, const T* data, size_t size) {
  os << "[";
  for (size_t i = 0; i < size; ++i) {
    if (i) os << ", ";
    os << data[i];
  }
  return os << "]";
}

template <typename T>
std::ostream& operator<<(std::ostream& os, ArrayRef<T> list) {
  return PrintList(os, list.data(), list.size());
}

namespace detail {
template <typename T>
void StreamOne(std::ostream& os, const T& value) {
  os << value;
}
template <typename T>
void StreamOne(std::ostream& os, const std::vector<T>& list) {
  PrintList(os, list.data(), list.size());
}
}  // namespace detail

// Concatenates the streamed text of every argument; vectors print as "[a, b]".
template <typename... Args>
std::string StrCat(const Args&... args) {
  std::ostringstream os;
  (detail::StreamOne(os, args), ...);
  return os.str();
}

// Joins the parts with "::", as program names are formed ("Activation::test").
template <typename... Args>
std::string ConcatenateStrings(const Args&... parts) {
  std::string out;
  bool first = true;
  ((out += first ? "" : "::", out += std::string(parts), first = false), ...);
  return out;
}

// The largest power of two, at most `most`, that divides n (1 for n = 0).
inline size_t PowerOfTwoDivisor(size_t n, size_t most) {
  size_t p = 1;
  while (2 * p <= most && n != 0 && n % (2 * p) == 0) p *= 2;
  return p;
}

// The value of an environment variable, or nothing when it is unset.
std::optional<std::string> EnvVar(const std::string& name);

}  // namespace nerva
