#pragma once

#include <cmath>
#include <random>
#include <vector>

#include <linvo/linvo.h>

namespace linvo_test {

using linvo::DataType;
using linvo::Matrix;
using linvo::Shape;

inline std::mt19937& Rng() {
  static std::mt19937 rng(std::random_device{}());
  return rng;
}

inline const std::vector<DataType>& AllTypes() {
  static const std::vector<DataType> types = {
      linvo::kHalf,   linvo::kBFloat, linvo::kFloat,         linvo::kDouble,      linvo::kInt8,
      linvo::kInt16,  linvo::kInt32,  linvo::kInt64,         linvo::kUInt8,       linvo::kUInt16,
      linvo::kUInt32, linvo::kUInt64, linvo::kFloat8_e4m3fn, linvo::kFloat8_e5m2, linvo::kBool};
  return types;
}

// Random values that every type can hold: small integers for integral types, 0/1 for bool,
// non-zero reals in [-4, 4] for floating types. Never all zero.
inline Matrix RandomMatrix(const Shape& shape, DataType dtype, bool positive = false) {
  std::vector<double> values(shape.size());
  bool integral = linvo::TypeTraitsHelper::IsIntegral(dtype, true);
  bool is_unsigned = !linvo::TypeTraitsHelper::IsSigned(dtype);
  std::uniform_real_distribution<double> real(positive ? 0.25 : -4.0, 4.0);
  std::uniform_int_distribution<int> whole(positive || is_unsigned ? 1 : -9, 9);
  std::uniform_int_distribution<int> flag(0, 1);
  for (size_t i = 0; i < values.size(); ++i) {
    if (dtype == linvo::kBool) {
      values[i] = i == 0 ? 1 : flag(Rng());
    } else {
      values[i] = integral ? whole(Rng()) : real(Rng());
    }
  }
  Matrix doubles(shape, linvo::kDouble);
  doubles.Load(values.data());
  return doubles.CastTo(dtype);
}

// Element values as doubles (through the library's own, separately tested, conversions).
inline std::vector<double> Values(const Matrix& m) {
  Matrix d = m.CastTo(linvo::kDouble);
  const double* p = d.data<double>();
  return std::vector<double>(p, p + d.size());
}

// Multi-index of a row-major linear index.
inline std::vector<int64_t> Unravel(int64_t index, const std::vector<int64_t>& dims) {
  std::vector<int64_t> idx(dims.size());
  for (size_t d = dims.size(); d-- > 0;) {
    idx[d] = index % dims[d];
    index /= dims[d];
  }
  return idx;
}

inline int64_t Ravel(const std::vector<int64_t>& idx, const std::vector<int64_t>& dims) {
  int64_t index = 0;
  for (size_t d = 0; d < dims.size(); ++d) index = index * dims[d] + idx[d];
  return index;
}

// Tolerance that fits the precision of a result type, relative to the magnitude.
inline double Tolerance(DataType dtype, double magnitude) {
  double rel = 0;
  switch (dtype) {
    case linvo::kHalf:
      rel = 1e-3;
      break;
    case linvo::kBFloat:
      rel = 8e-3;
      break;
    case linvo::kFloat:
      rel = 2e-6;
      break;
    case linvo::kDouble:
      rel = 2e-6;
      break;  // unary math is done in float
    case linvo::kFloat8_e4m3fn:
      rel = 0.07;
      break;
    case linvo::kFloat8_e5m2:
      rel = 0.13;
      break;
    default:
      return 0;
  }
  return rel * std::max(1.0, std::fabs(magnitude));
}

// Whether an integral type holds the (truncated) value; conversions outside it are undefined.
inline bool Representable(DataType dtype, double v) {
  if (!linvo::TypeTraitsHelper::IsIntegral(dtype, false)) return true;
  double bits = static_cast<double>(linvo::TypeTraitsHelper::GetBits(dtype));
  bool is_signed = linvo::TypeTraitsHelper::IsSigned(dtype);
  double lo = is_signed ? -std::ldexp(1.0, bits - 1) : 0.0;
  double hi = std::ldexp(1.0, is_signed ? bits - 1 : bits);
  return std::trunc(v) >= lo && std::trunc(v) < hi;
}

// Rounds a double reference to what the result type can hold: integers truncate (wide unsigned
// types wrap), bool is 0/1.
inline double RoundTo(DataType dtype, double v) {
  if (dtype == linvo::kBool) return v != 0 ? 1 : 0;
  if (v < 0 && (dtype == linvo::kUInt32 || dtype == linvo::kUInt64)) {
    return std::trunc(v) +
           std::ldexp(1.0, static_cast<int>(linvo::TypeTraitsHelper::GetBits(dtype)));
  }
  if (linvo::TypeTraitsHelper::IsIntegral(dtype, false)) return std::trunc(v);
  return v;
}

}  // namespace linvo_test
