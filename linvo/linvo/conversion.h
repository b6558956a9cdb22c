#pragma once

#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

#include "linvo/data_type.h"

namespace linvo {

inline uint32_t FloatBits(float f) {
  uint32_t b;
  std::memcpy(&b, &f, sizeof(b));
  return b;
}

inline float BitsToFloat(uint32_t b) {
  float f;
  std::memcpy(&f, &b, sizeof(f));
  return f;
}

// IEEE binary16 -> float, exact (subnormals, infinities and NaN payloads kept).
inline float HalfToFloat(uint16_t h) {
  uint32_t sign = static_cast<uint32_t>(h & 0x8000) << 16;
  uint32_t exponent = (h >> 10) & 0x1F;
  uint32_t mantissa = h & 0x3FF;
  if (exponent == 0x1F) return BitsToFloat(sign | 0x7F800000 | (mantissa << 13));
  if (exponent == 0) {
    // Subnormal: mantissa units of 2^-24, exact in float.
    float magnitude = static_cast<float>(mantissa) * 5.9604644775390625e-8f;
    return BitsToFloat(sign | FloatBits(magnitude));
  }
  return BitsToFloat(sign | ((exponent + 112) << 23) | (mantissa << 13));
}

// float -> IEEE binary16, round to nearest, ties to even; NaN becomes 0x7E00 with its sign.
inline uint16_t FloatToHalf(float f) {
  uint32_t b = FloatBits(f);
  uint32_t sign = (b >> 16) & 0x8000;
  uint32_t a = b & 0x7FFFFFFF;
  if (a > 0x7F800000) return static_cast<uint16_t>(sign | 0x7E00);
  if (a >= 0x477FF000) return static_cast<uint16_t>(sign | 0x7C00);  // 65520 and up round to inf
  if (a >= 0x38800000) {                                             // normal half range
    uint32_t rounded = a + 0xFFF + ((a >> 13) & 1) - (112u << 23);
    return static_cast<uint16_t>(sign | (rounded >> 13));
  }
  // Subnormal half: count units of 2^-24 with round-to-nearest-even on the dropped bits.
  uint32_t exponent = a >> 23;
  uint32_t shift = 126 - exponent;
  if (exponent == 0 || shift > 24) return static_cast<uint16_t>(sign);
  uint32_t mantissa = (a & 0x7FFFFF) | 0x800000;
  uint32_t units = mantissa >> shift;
  uint32_t rest = mantissa & ((1u << shift) - 1);
  uint32_t half_unit = 1u << (shift - 1);
  if (rest > half_unit || (rest == half_unit && (units & 1))) ++units;
  return static_cast<uint16_t>(sign | units);
}

inline float BFloatToFloat(uint16_t v) {
  return BitsToFloat(static_cast<uint32_t>(v) << 16);
}

// Round to nearest even on the low 16 bits; NaN is deliberately not special-cased.
inline uint16_t FloatToBFloat(float f) {
  uint32_t b = FloatBits(f);
  return static_cast<uint16_t>((b + 0x7FFF + ((b >> 16) & 1)) >> 16);
}

inline float Float8E4M3ToFloat(uint8_t v) {
  uint32_t sign = static_cast<uint32_t>(v & 0x80) << 24;
  uint32_t exponent = (v >> 3) & 0xF;
  uint32_t mantissa = v & 0x7;
  if ((v & 0x7F) == 0x7F) return BitsToFloat(sign | 0x7FC00000);
  if (exponent == 0) {
    float magnitude = static_cast<float>(mantissa) * 0.001953125f;  // units of 2^-9
    return BitsToFloat(sign | FloatBits(magnitude));
  }
  return BitsToFloat(sign | ((exponent + 120) << 23) | (mantissa << 20));
}

// No infinities: 480 and above (and NaN) give NaN (0x7F); there is no saturation.
inline uint8_t FloatToFloat8E4M3(float f) {
  uint32_t b = FloatBits(f);
  uint32_t sign = (b >> 24) & 0x80;
  b &= 0x7FFFFFFF;
  if (b >= 0x43F00000) return static_cast<uint8_t>(sign | 0x7F);
  if (b >= 0x3C800000) {
    b += 0x7FFFF + ((b >> 20) & 1);
    b -= 120u << 23;
    return static_cast<uint8_t>(sign | (b >> 20));
  }
  // Subnormals: adding 2^14 makes the float's last mantissa bit worth 2^-9.
  const float kMagic = 16384.0f;
  return static_cast<uint8_t>(sign | (FloatBits(BitsToFloat(b) + kMagic) - FloatBits(kMagic)));
}

inline float Float8E5M2ToFloat(uint8_t v) {
  return HalfToFloat(static_cast<uint16_t>(v << 8));
}

inline uint8_t FloatToFloat8E5M2(float f) {
  uint32_t b = FloatBits(f);
  uint32_t sign = (b >> 24) & 0x80;
  b &= 0x7FFFFFFF;
  if (b >= 0x47800000) return static_cast<uint8_t>(sign | (b > 0x7F800000 ? 0x7F : 0x7C));
  if (b >= 0x38800000) {
    b += 0xFFFFF + ((b >> 21) & 1);
    b -= 112u << 23;
    return static_cast<uint8_t>(sign | (b >> 21));
  }
  // Subnormals: adding 128 makes the float's last mantissa bit worth 2^-16.
  const float kMagic = 128.0f;
  return static_cast<uint8_t>(sign | (FloatBits(BitsToFloat(b) + kMagic) - FloatBits(kMagic)));
}

// Widens a packed float pattern of type E to float.
template <DataType E>
inline float PackedToFloat(Underlying<E> v) {
  if constexpr (E == kHalf) return HalfToFloat(v);
  if constexpr (E == kBFloat) return BFloatToFloat(v);
  if constexpr (E == kFloat8_e4m3fn) return Float8E4M3ToFloat(v);
  if constexpr (E == kFloat8_e5m2) return Float8E5M2ToFloat(v);
}

// Narrows a float to the packed float pattern of type E.
template <DataType E>
inline Underlying<E> FloatToPacked(float f) {
  if constexpr (E == kHalf) return FloatToHalf(f);
  if constexpr (E == kBFloat) return FloatToBFloat(f);
  if constexpr (E == kFloat8_e4m3fn) return FloatToFloat8E4M3(f);
  if constexpr (E == kFloat8_e5m2) return FloatToFloat8E5M2(f);
}

// Float to integer as the device converts: truncation toward zero, saturated
// at the integer's range, NaN to 0 (the plain C conversion is undefined there).
template <typename I, typename F>
inline I SaturateToInteger(F v) {
  if (v != v) return 0;
  // Both bounds are powers of two (or zero), so they are exact in F.
  constexpr F kLow = static_cast<F>(std::numeric_limits<I>::min());
  constexpr F kHigh = static_cast<F>(std::numeric_limits<I>::max() / 2 + 1) * 2;
  if (v <= kLow) return std::numeric_limits<I>::min();
  if (v >= kHigh) return std::numeric_limits<I>::max();
  return static_cast<I>(v);
}

// Converts one element from type S to type D. Packed floats go through float, bool becomes 0/1
// (NaN counts as non-zero), float to integer saturates (NaN gives 0), everything else uses the
// ordinary C conversion.
template <DataType S, DataType D>
inline Underlying<D> ConvertElement(Underlying<S> v) {
  if constexpr (S == D) {
    return v;
  } else if constexpr (IsPackedFloat(S)) {
    return ConvertElement<kFloat, D>(PackedToFloat<S>(v));
  } else if constexpr (D == kBool) {
    return v != 0 ? 1 : 0;
  } else if constexpr (IsPackedFloat(D)) {
    return FloatToPacked<D>(static_cast<float>(v));
  } else if constexpr (std::is_floating_point_v<Underlying<S>> &&
                       std::is_integral_v<Underlying<D>>) {
    return SaturateToInteger<Underlying<D>>(v);
  } else {
    return static_cast<Underlying<D>>(v);
  }
}

// Type in which binary arithmetic on E is carried out.
template <DataType E>
using ComputeType = std::conditional_t<IsPackedFloat(E) || E == kBool, float, Underlying<E>>;

template <DataType E>
inline ComputeType<E> LoadCompute(Underlying<E> v) {
  if constexpr (std::is_same_v<ComputeType<E>, Underlying<E>>) {
    return v;
  } else {
    return ConvertElement<E, kFloat>(v);
  }
}

template <DataType E>
inline Underlying<E> StoreCompute(ComputeType<E> v) {
  if constexpr (std::is_same_v<ComputeType<E>, Underlying<E>>) {
    return v;
  } else {
    return ConvertElement<kFloat, E>(v);
  }
}

}  // namespace linvo
