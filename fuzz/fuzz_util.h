#pragma once

// Decoding of fuzz inputs shared by the targets: mostly small sizes and axes,
// so that operations get past their first checks, and now and then the edge
// values where arithmetic overflows or signs flip.

#include <fuzzer/FuzzedDataProvider.h>

#include <climits>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace nerva::fuzz {

inline long Extent(FuzzedDataProvider& in) {
  static const long kEdges[] = {0,        -1,       -7,       65536,    (1L << 31) - 1,
                                1L << 31, 1L << 32, 1L << 62, LONG_MAX, LONG_MIN};
  const uint8_t b = in.ConsumeIntegral<uint8_t>();
  if (b < 232) return static_cast<long>(b % 10) - 1;  // -1 .. 8
  return kEdges[b % (sizeof(kEdges) / sizeof(kEdges[0]))];
}

inline int Axis(FuzzedDataProvider& in) {
  const uint8_t b = in.ConsumeIntegral<uint8_t>();
  if (b < 248) return static_cast<int>(b % 21) - 10;  // -10 .. 10
  return (b & 1) ? INT_MAX : INT_MIN;
}

inline std::vector<long> Extents(FuzzedDataProvider& in, size_t max_count = 9) {
  std::vector<long> out(in.ConsumeIntegralInRange<size_t>(0, max_count));
  for (long& v : out) v = Extent(in);
  return out;
}

inline std::vector<long> Axes(FuzzedDataProvider& in, size_t max_count = 9) {
  std::vector<long> out(in.ConsumeIntegralInRange<size_t>(0, max_count));
  for (long& v : out) v = Axis(in);
  return out;
}

// Element-type codes: the valid 0..14 and a few outside.
inline int32_t TypeCode(FuzzedDataProvider& in) {
  return in.ConsumeIntegralInRange<int32_t>(-2, 17);
}

// Runs `f`; the library's documented failures are the exceptions below. Any
// other exception escapes and libFuzzer reports it as a crash.
template <typename F>
void AllowDocumentedErrors(F&& f) {
  try {
    f();
  } catch (const std::invalid_argument&) {
  } catch (const std::out_of_range&) {
  } catch (const std::runtime_error&) {
  }
}

}  // namespace nerva::fuzz
