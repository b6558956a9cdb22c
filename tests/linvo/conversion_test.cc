#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "test_util.h"

namespace {

using namespace linvo;

uint32_t Bits(float f) {
  uint32_t b;
  std::memcpy(&b, &f, 4);
  return b;
}

float FromBits(uint32_t b) {
  float f;
  std::memcpy(&f, &b, 4);
  return f;
}

uint16_t HalfBits(_Float16 h) {
  uint16_t b;
  std::memcpy(&b, &h, 2);
  return b;
}

_Float16 HalfFromBits(uint16_t b) {
  _Float16 h;
  std::memcpy(&h, &b, 2);
  return h;
}

TEST(HalfConversion, WideningMatchesCompilerForAllPatterns) {
  for (uint32_t bits = 0; bits < 65536; ++bits) {
    float expected = static_cast<float>(HalfFromBits(static_cast<uint16_t>(bits)));
    float actual = HalfToFloat(static_cast<uint16_t>(bits));
    if (std::isnan(expected)) {
      ASSERT_TRUE(std::isnan(actual)) << bits;
      ASSERT_EQ(Bits(actual) >> 31, bits >> 15) << bits;
    } else {
      ASSERT_EQ(Bits(actual), Bits(expected)) << bits;
    }
  }
}

TEST(HalfConversion, NarrowingMatchesCompilerAroundEveryPattern) {
  // Each half value, the midpoints to its neighbours (ties) and points just beside them.
  for (uint32_t bits = 0; bits < 65536; ++bits) {
    float v = HalfToFloat(static_cast<uint16_t>(bits));
    if (std::isnan(v)) continue;
    float next = std::isinf(v) ? v : HalfToFloat(static_cast<uint16_t>(bits + 1));
    float mid = std::isinf(next) || std::isnan(next) ? v : v + (next - v) / 2;
    for (float x : {v, mid, std::nextafter(mid, 0.0f), std::nextafter(mid, v * 4)}) {
      ASSERT_EQ(FloatToHalf(x), HalfBits(static_cast<_Float16>(x))) << x;
    }
  }
}

TEST(HalfConversion, NarrowingMatchesCompilerOnRandomFloats) {
  std::uniform_int_distribution<uint32_t> any;
  for (int i = 0; i < 200000; ++i) {
    float x = FromBits(any(linvo_test::Rng()));
    if (std::isnan(x)) continue;
    ASSERT_EQ(FloatToHalf(x), HalfBits(static_cast<_Float16>(x))) << x;
  }
}

TEST(HalfConversion, NanBecomesCanonicalWithSign) {
  EXPECT_EQ(FloatToHalf(std::numeric_limits<float>::quiet_NaN()), 0x7E00);
  EXPECT_EQ(FloatToHalf(FromBits(0x7F800001)), 0x7E00);
  EXPECT_EQ(FloatToHalf(FromBits(0xFFC00000)), 0xFE00);
  EXPECT_EQ(FloatToHalf(65504.0f), 0x7BFF);
  EXPECT_EQ(FloatToHalf(65520.0f), 0x7C00);  // tie rounds to even: infinity
  EXPECT_EQ(FloatToHalf(std::ldexp(1.0f, -24)), 0x0001);
  EXPECT_EQ(FloatToHalf(std::ldexp(1.0f, -25)), 0x0000);  // tie to even zero
  EXPECT_EQ(FloatToHalf(std::ldexp(3.0f, -25)), 0x0002);  // tie to even two
}

TEST(BFloatConversion, WideningPutsBitsInUpperHalf) {
  for (uint32_t bits = 0; bits < 65536; ++bits) {
    ASSERT_EQ(Bits(BFloatToFloat(static_cast<uint16_t>(bits))), bits << 16);
  }
}

TEST(BFloatConversion, Rounding) {
  struct Case {
    uint32_t in;
    uint16_t out;
  };
  const Case cases[] = {
      {0x3F800000, 0x3F80},  // exact
      {0x3F808000, 0x3F80},  // tie, even stays
      {0x3F818000, 0x3F82},  // tie, odd rounds up
      {0x3F808001, 0x3F81},  // above tie
      {0x3F807FFF, 0x3F80},  // below tie
      {0x7F7FFFFF, 0x7F80},  // largest float rounds to infinity
      {0x7F800000, 0x7F80},  // infinity
      {0xBF808000, 0xBF80},  // negative tie to even
      {0x7FC00000, 0x7FC0},  // quiet NaN survives
      {0x7FFFFFFF, 0x8000},  // no NaN case: the carry reaches the sign
  };
  for (const Case& c : cases) EXPECT_EQ(FloatToBFloat(FromBits(c.in)), c.out) << std::hex << c.in;
}

// Independent reference for the 8-bit formats: value of every pattern from its fields, and
// narrowing as nearest finite value with ties to the even pattern.
struct Fp8Format {
  int exponent_bits;
  int mantissa_bits;
  int bias;
  bool has_inf;
};

double Fp8Value(const Fp8Format& f, int pattern) {
  int sign = pattern >> 7;
  int e = (pattern >> f.mantissa_bits) & ((1 << f.exponent_bits) - 1);
  int m = pattern & ((1 << f.mantissa_bits) - 1);
  int max_e = (1 << f.exponent_bits) - 1;
  double value;
  if (f.has_inf && e == max_e) {
    value = m == 0 ? INFINITY : NAN;
  } else if (!f.has_inf && e == max_e && m == (1 << f.mantissa_bits) - 1) {
    value = NAN;
  } else if (e == 0) {
    value = std::ldexp(m, 1 - f.bias - f.mantissa_bits);
  } else {
    value = std::ldexp((1 << f.mantissa_bits) + m, e - f.bias - f.mantissa_bits);
  }
  return sign ? -value : value;
}

int Fp8Nearest(const Fp8Format& f, double x, int nan_pattern, int overflow_pattern,
               double overflow_from) {
  int sign = std::signbit(x) ? 0x80 : 0;
  double a = std::fabs(x);
  if (std::isnan(x)) return sign | nan_pattern;
  if (a >= overflow_from) return sign | overflow_pattern;
  int best = 0;
  for (int p = 1; p < 128; ++p) {
    double v = Fp8Value(f, p);
    if (std::isnan(v) || std::isinf(v)) continue;
    double db = std::fabs(Fp8Value(f, best) - a), dp = std::fabs(v - a);
    if (dp < db || (dp == db && (p & 1) == 0)) best = p;
  }
  // Values past the largest finite one but below the overflow threshold round to the next
  // pattern up (NaN for e4m3fn, infinity for e5m2).
  double top = Fp8Value(f, best);
  int next = best + 1;
  if (a > top && next < 128 && !std::isfinite(Fp8Value(f, next))) {
    double half_step = (top - Fp8Value(f, best - 1)) / 2;
    if (a - top > half_step || (a - top == half_step && (best & 1))) best = next;
  }
  return sign | best;
}

const Fp8Format kE4M3{4, 3, 7, false};
const Fp8Format kE5M2{5, 2, 15, true};

TEST(Float8Conversion, WideningIsExactForAllPatterns) {
  for (int p = 0; p < 256; ++p) {
    double e4 = Fp8Value(kE4M3, p), e5 = Fp8Value(kE5M2, p);
    float a4 = Float8E4M3ToFloat(static_cast<uint8_t>(p));
    float a5 = Float8E5M2ToFloat(static_cast<uint8_t>(p));
    if (std::isnan(e4)) {
      EXPECT_TRUE(std::isnan(a4)) << p;
    } else {
      EXPECT_EQ(a4, e4) << p;
    }
    if (std::isnan(e5)) {
      EXPECT_TRUE(std::isnan(a5)) << p;
    } else {
      EXPECT_EQ(a5, e5) << p;
    }
  }
}

TEST(Float8Conversion, RoundTripOfEveryFinitePattern) {
  for (int p = 0; p < 256; ++p) {
    auto u = static_cast<uint8_t>(p);
    if ((p & 0x7F) != 0x7F) {
      EXPECT_EQ(FloatToFloat8E4M3(Float8E4M3ToFloat(u)), u) << p;
    }
    if ((p & 0x7F) <= 0x7C) {
      EXPECT_EQ(FloatToFloat8E5M2(Float8E5M2ToFloat(u)), u) << p;
    }
  }
}

TEST(Float8Conversion, NarrowingMatchesNearestEvenReference) {
  std::vector<float> inputs;
  for (int p = 0; p < 256; ++p) {
    for (const Fp8Format* f : {&kE4M3, &kE5M2}) {
      double v = Fp8Value(*f, p), w = Fp8Value(*f, (p & 0x80) | ((p & 0x7F) + 1));
      if (!std::isfinite(v)) continue;
      inputs.push_back(static_cast<float>(v));
      if (std::isfinite(w)) {
        double mid = (v + w) / 2;
        inputs.push_back(static_cast<float>(mid));
        inputs.push_back(std::nextafter(static_cast<float>(mid), 0.0f));
        inputs.push_back(std::nextafter(static_cast<float>(mid), static_cast<float>(w * 2)));
      }
    }
  }
  std::uniform_real_distribution<float> real(-70000.0f, 70000.0f);
  for (int i = 0; i < 2000; ++i) inputs.push_back(real(linvo_test::Rng()) / (1 << (i % 24)));
  for (float x : inputs) {
    ASSERT_EQ(FloatToFloat8E4M3(x), Fp8Nearest(kE4M3, x, 0x7F, 0x7F, 480.0)) << x;
    ASSERT_EQ(FloatToFloat8E5M2(x), Fp8Nearest(kE5M2, x, 0x7F, 0x7C, 65536.0)) << x;
  }
}

TEST(Float8Conversion, EdgeValues) {
  EXPECT_EQ(FloatToFloat8E4M3(500.0f), 0x7F);
  EXPECT_EQ(FloatToFloat8E4M3(-500.0f), 0xFF);
  EXPECT_EQ(FloatToFloat8E4M3(448.0f), 0x7E);
  EXPECT_EQ(FloatToFloat8E4M3(INFINITY), 0x7F);
  EXPECT_EQ(FloatToFloat8E4M3(NAN), 0x7F);
  EXPECT_EQ(FloatToFloat8E5M2(1e6f), 0x7C);
  EXPECT_EQ(FloatToFloat8E5M2(-1e6f), 0xFC);
  EXPECT_EQ(FloatToFloat8E5M2(NAN), 0x7F);
  EXPECT_EQ(FloatToFloat8E5M2(57344.0f), 0x7B);
  EXPECT_EQ(FloatToFloat8E5M2(std::ldexp(1.0f, -16)), 0x01);
  EXPECT_EQ(FloatToFloat8E4M3(std::ldexp(1.0f, -9)), 0x01);
  EXPECT_EQ(FloatToFloat8E4M3(std::ldexp(1.0f, -10)), 0x00);  // tie to even zero
}

TEST(ElementConversion, IntegersAndBool) {
  EXPECT_EQ((ConvertElement<kFloat, kInt32>(-3.7f)), -3);
  EXPECT_EQ((ConvertElement<kInt32, kBool>(-5)), 1);
  EXPECT_EQ((ConvertElement<kHalf, kBool>(0x8000)), 0);  // negative zero is zero
  EXPECT_EQ((ConvertElement<kFloat, kBool>(NAN)), 1);
  EXPECT_EQ((ConvertElement<kInt16, kHalf>(3)), 0x4200);
  EXPECT_EQ((ConvertElement<kHalf, kInt8>(0xC500)), -5);
  EXPECT_EQ((ConvertElement<kBFloat, kFloat8_e5m2>(0x3F80)), 0x3C);
}

// Float to integer saturates at the integer's range and takes NaN to 0, as the device does.
TEST(ElementConversion, FloatToIntegerSaturates) {
  const float inf = std::numeric_limits<float>::infinity();
  EXPECT_EQ((ConvertElement<kFloat, kInt32>(NAN)), 0);
  EXPECT_EQ((ConvertElement<kFloat, kInt32>(3e9f)), 2147483647);
  EXPECT_EQ((ConvertElement<kFloat, kInt32>(-inf)), -2147483647 - 1);
  EXPECT_EQ((ConvertElement<kFloat, kInt8>(127.9f)), 127);
  EXPECT_EQ((ConvertElement<kFloat, kInt8>(128.0f)), 127);
  EXPECT_EQ((ConvertElement<kFloat, kInt8>(-128.9f)), -128);
  EXPECT_EQ((ConvertElement<kFloat, kUInt8>(-0.9f)), 0);
  EXPECT_EQ((ConvertElement<kFloat, kUInt8>(-7.0f)), 0);
  EXPECT_EQ((ConvertElement<kFloat, kUInt8>(300.0f)), 255);
  EXPECT_EQ((ConvertElement<kFloat, kInt64>(1e19f)), std::numeric_limits<int64_t>::max());
  EXPECT_EQ((ConvertElement<kFloat, kUInt64>(inf)), std::numeric_limits<uint64_t>::max());
  EXPECT_EQ((ConvertElement<kDouble, kUInt32>(4294967295.5)), 4294967295u);
  EXPECT_EQ((ConvertElement<kDouble, kInt16>(-1e300)), -32768);
  EXPECT_EQ((ConvertElement<kHalf, kUInt8>(0x7E00)), 0);   // half NaN
  EXPECT_EQ((ConvertElement<kHalf, kInt8>(0x7C00)), 127);  // half +inf
}

}  // namespace
