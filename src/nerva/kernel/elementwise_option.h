#pragma once

// Option records of the element-wise operators (unary, binary, ternary and their
// multi-tensor "for each" forms) and of the small parametrised element-wise ops.

#include <cstdint>

namespace nerva {

// Functions of Unary and ForEachUnary; the values are the device operator codes.
enum class UnaryType : int32_t {
  kAbs = 0,
  kNeg = 1,
  kExp = 2,
  kExp2 = 3,
  kExpm1 = 4,
  kLog = 5,
  kLog2 = 6,
  kLog10 = 7,
  kLog1p = 8,
  kSqrt = 9,
  kRsqrt = 10,
  kSin = 11,
  kCos = 12,
  kTan = 13,
  kAsin = 14,
  kAcos = 15,
  kAtan = 16,
  kSinh = 17,
  kCosh = 18,
  kTanh = 19,
  kAsinh = 20,
  kAcosh = 21,
  kAtanh = 22,
  kErf = 23,
  kErfc = 24,
  kErfinv = 25,
  kCeil = 26,
  kFloor = 27,
  kRound = 28,  // half to even, as torch.round
  kTrunc = 29,
  kFrac = 30,
  kSign = 31,
  kReciprocal = 32,
  kSquare = 33,
  kLgamma = 34,
  kBitwiseNot = 35,
  kLogicalNot = 36,
  kIsNan = 37,
  kIsInf = 38,
  kIsFinite = 39,
};

// Functions of Binary and ForEachBinary (x = input, y = other); the values are the
// device operator codes.
enum class BinaryType : int32_t {
  kAdd = 0,  // x + alpha * y
  kSub = 1,  // x - alpha * y
  kMul = 2,
  kDiv = 3,        // true division
  kDivTrunc = 4,   // torch.div(rounding_mode="trunc")
  kDivFloor = 5,   // torch.div(rounding_mode="floor")
  kRemainder = 6,  // result has the sign of y (torch.remainder)
  kFmod = 7,       // result has the sign of x (torch.fmod)
  kPow = 8,
  kMaximum = 9,  // NaN-propagating
  kMinimum = 10,
  kFmax = 11,  // NaN-ignoring
  kFmin = 12,
  kAtan2 = 13,
  kHypot = 14,
  kCopysign = 15,
  kXlogy = 16,
  kEq = 17,
  kNe = 18,
  kLt = 19,
  kLe = 20,
  kGt = 21,
  kGe = 22,
  kLogicalAnd = 23,
  kLogicalOr = 24,
  kLogicalXor = 25,
  kBitwiseAnd = 26,
  kBitwiseOr = 27,
  kBitwiseXor = 28,
  kBitwiseLeftShift = 29,
  kBitwiseRightShift = 30,
};

// Functions of Ternary and ForEachTernary (x = input, a = tensor1, b = tensor2).
enum class TernaryType : int32_t {
  kAddcmul = 0,  // x + value * a * b
  kAddcdiv = 1,  // x + value * a / b
  kLerp = 2,     // x + b * (a - x): a is the end point, b the weight
};

struct UnaryOption {
  UnaryType op_type = UnaryType::kAbs;  // the function applied to every element
};

struct BinaryOption {
  BinaryType op_type = BinaryType::kAdd;  // the function applied to every element pair
  float alpha = 1.0f;                     // multiplier of `other` for kAdd and kSub
};

struct TernaryOption {
  TernaryType op_type = TernaryType::kAddcmul;  // the function applied to every triple
  float value = 1.0f;                           // scalar multiplier of kAddcmul and kAddcdiv
};

struct ForEachUnaryOption {
  UnaryType op_type = UnaryType::kAbs;  // applied to every tensor of the list
};

struct ForEachBinaryOption {
  BinaryType op_type = BinaryType::kAdd;  // applied to every pair of tensors
  float alpha = 1.0f;                     // multiplier of the second tensor for kAdd and kSub
};

struct ForEachTernaryOption {
  TernaryType op_type = TernaryType::kAddcmul;  // applied to every triple of tensors
  float value = 1.0f;                           // scalar multiplier of kAddcmul and kAddcdiv
};

// torch.logit(input, eps).
struct LogitOption {
  // Inputs are clamped to [eps, 1 - eps] first; a negative value disables the clamp
  // (eps=None).
  float eps = -1.0f;
};

// torch.nn.functional.threshold(input, threshold, value).
struct ThresholdOption {
  double threshold = 0.0;  // elements not above it are replaced
  double value = 0.0;      // the replacement
};

// torch.masked_fill(input, mask, value).
struct MaskedFillOption {
  double value = 0.0;  // written where the mask is true, converted to the output type
};

}  // namespace nerva
