// Native kernels of the PyTorch backend: ATen operators computed by nerva's operators.
// Each family registers its operators in one function at the end; an operator added
// later (data movement, indexing, pooling) is one function and one line there.

#include <ATen/ExpandUtils.h>
#include <ATen/WrapDimUtils.h>
#include <torch/library.h>

#include <string>

#include "backend.h"
#include "nerva/kernel/base.h"
#include "nerva/kernel/elementwise.h"
#include "nerva/kernel/loss.h"
#include "nerva/kernel/nn.h"
#include "nerva/kernel/normalization.h"
#include "nerva/kernel/reduce.h"
#include "nerva/kernel/train.h"

namespace nerva_torch {

namespace {

using nerva::BinaryType;
using nerva::UnaryType;

float F(const at::Scalar& s) {
  return static_cast<float>(s.toDouble());
}

// out given by the caller: resized to `sizes` when its shape differs (as .out forms do).
void ResizeOut(const at::Tensor& out, at::IntArrayRef sizes, const char* op) {
  TORCH_CHECK(OnDevice(out), "nerva_torch: ", op, ": out on ", out.device());
  if (out.sizes() != sizes) out.resize_(sizes);
}

// ---------------------------------------------------------------- element-wise

at::ScalarType BinaryResultType(BinaryType op, const at::Tensor& a, const at::Tensor& b) {
  switch (op) {
    case BinaryType::kEq:
    case BinaryType::kNe:
    case BinaryType::kLt:
    case BinaryType::kLe:
    case BinaryType::kGt:
    case BinaryType::kGe:
    case BinaryType::kLogicalAnd:
    case BinaryType::kLogicalOr:
    case BinaryType::kLogicalXor:
      return at::kBool;
    default:
      break;
  }
  at::ScalarType common = at::result_type(a, b);
  if (op == BinaryType::kDiv && at::isIntegralType(common, true)) {
    return at::typeMetaToScalarType(at::get_default_dtype());
  }
  return common;
}

// The computation type of a binary operator: comparisons compare in the common type.
at::ScalarType BinaryComputeType(BinaryType op, const at::Tensor& a, const at::Tensor& b) {
  at::ScalarType common = at::result_type(a, b);
  if (op == BinaryType::kDiv && at::isIntegralType(common, true)) {
    return at::typeMetaToScalarType(at::get_default_dtype());
  }
  return common;
}

void BinaryInto(const char* name, BinaryType op, const at::Tensor& a, const at::Tensor& b,
                float alpha, const at::Tensor& out) {
  if (out.numel() == 0) return;
  const at::ScalarType compute = BinaryComputeType(op, a, b);
  Call call(name);
  Operand x = call.InAs(a, compute);
  Operand y = call.InAs(b, compute);
  Operand o = call.Out(out);
  nerva::BinaryOption option;
  option.op_type = op;
  option.alpha = alpha;
  call.Run(nerva::Binary::Create(GetQueue(), option, x.opt, x.buf, y.opt, y.buf, o.opt, o.buf));
}

at::Tensor BinaryFunctional(const char* name, BinaryType op, const at::Tensor& a,
                            const at::Tensor& b, float alpha) {
  auto sizes = at::infer_size(a.sizes(), b.sizes());
  at::Tensor out = Empty(sizes, BinaryResultType(op, a, b));
  BinaryInto(name, op, a, b, alpha, out);
  return out;
}

at::Tensor& BinaryOut(const char* name, BinaryType op, const at::Tensor& a, const at::Tensor& b,
                      float alpha, at::Tensor& out) {
  ResizeOut(out, at::infer_size(a.sizes(), b.sizes()), name);
  if (out.scalar_type() != BinaryResultType(op, a, b) || out.is_same(b)) {
    at::Tensor temp = BinaryFunctional(name, op, a, b, alpha);
    DeviceCopy(out, temp, name);
    return out;
  }
  BinaryInto(name, op, a, b, alpha, out);
  return out;
}

template <BinaryType kOp>
struct BinaryOps {
  static const char* Name();
  static at::Tensor Fn(const at::Tensor& a, const at::Tensor& b) {
    return BinaryFunctional(Name(), kOp, a, b, 1.0f);
  }
  static at::Tensor& Inplace(at::Tensor& a, const at::Tensor& b) {
    return BinaryOut(Name(), kOp, a, b, 1.0f, a);
  }
  static at::Tensor& Out(const at::Tensor& a, const at::Tensor& b, at::Tensor& out) {
    return BinaryOut(Name(), kOp, a, b, 1.0f, out);
  }
  static at::Tensor FnScalar(const at::Tensor& a, const at::Scalar& b) {
    return Fn(a, at::scalar_to_tensor(b));
  }
  static at::Tensor& InplaceScalar(at::Tensor& a, const at::Scalar& b) {
    return Inplace(a, at::scalar_to_tensor(b));
  }
};

#define NERVA_BINARY_NAME(op, name)               \
  template <>                                     \
  const char* BinaryOps<BinaryType::op>::Name() { \
    return name;                                  \
  }
NERVA_BINARY_NAME(kMul, "mul")
NERVA_BINARY_NAME(kDiv, "div")
NERVA_BINARY_NAME(kMaximum, "maximum")
NERVA_BINARY_NAME(kMinimum, "minimum")
NERVA_BINARY_NAME(kPow, "pow")
NERVA_BINARY_NAME(kEq, "eq")
NERVA_BINARY_NAME(kNe, "ne")
NERVA_BINARY_NAME(kLt, "lt")
NERVA_BINARY_NAME(kLe, "le")
NERVA_BINARY_NAME(kGt, "gt")
NERVA_BINARY_NAME(kGe, "ge")
NERVA_BINARY_NAME(kLogicalAnd, "logical_and")
NERVA_BINARY_NAME(kLogicalOr, "logical_or")
NERVA_BINARY_NAME(kAtan2, "atan2")
NERVA_BINARY_NAME(kRemainder, "remainder")
NERVA_BINARY_NAME(kFmod, "fmod")
#undef NERVA_BINARY_NAME

at::Tensor Add(const at::Tensor& a, const at::Tensor& b, const at::Scalar& alpha) {
  return BinaryFunctional("add", BinaryType::kAdd, a, b, F(alpha));
}
at::Tensor& AddInplace(at::Tensor& a, const at::Tensor& b, const at::Scalar& alpha) {
  return BinaryOut("add_", BinaryType::kAdd, a, b, F(alpha), a);
}
at::Tensor& AddOut(const at::Tensor& a, const at::Tensor& b, const at::Scalar& alpha,
                   at::Tensor& out) {
  return BinaryOut("add.out", BinaryType::kAdd, a, b, F(alpha), out);
}
at::Tensor Sub(const at::Tensor& a, const at::Tensor& b, const at::Scalar& alpha) {
  return BinaryFunctional("sub", BinaryType::kSub, a, b, F(alpha));
}
at::Tensor& SubInplace(at::Tensor& a, const at::Tensor& b, const at::Scalar& alpha) {
  return BinaryOut("sub_", BinaryType::kSub, a, b, F(alpha), a);
}
at::Tensor& SubOut(const at::Tensor& a, const at::Tensor& b, const at::Scalar& alpha,
                   at::Tensor& out) {
  return BinaryOut("sub.out", BinaryType::kSub, a, b, F(alpha), out);
}
at::Tensor AddScalar(const at::Tensor& a, const at::Scalar& b, const at::Scalar& alpha) {
  return Add(a, at::scalar_to_tensor(b), alpha);
}
at::Tensor& AddScalarInplace(at::Tensor& a, const at::Scalar& b, const at::Scalar& alpha) {
  return AddInplace(a, at::scalar_to_tensor(b), alpha);
}

// Unary functions: functional, in-place and .out through one body.
void UnaryInto(const char* name, UnaryType op, const at::Tensor& a, const at::Tensor& out) {
  if (out.numel() == 0) return;
  Call call(name);
  Operand x = call.InAs(a, out.scalar_type());
  Operand o = call.Out(out);
  nerva::UnaryOption option;
  option.op_type = op;
  call.Run(nerva::Unary::Create(GetQueue(), option, x.opt, x.buf, o.opt, o.buf));
}

// Floating unary functions of integer inputs give the default float type.
at::ScalarType UnaryResultType(UnaryType op, const at::Tensor& a) {
  switch (op) {
    case UnaryType::kAbs:
    case UnaryType::kNeg:
    case UnaryType::kSign:
    case UnaryType::kCeil:
    case UnaryType::kFloor:
    case UnaryType::kRound:
    case UnaryType::kTrunc:
    case UnaryType::kSquare:
    case UnaryType::kBitwiseNot:
      return a.scalar_type();
    case UnaryType::kLogicalNot:
    case UnaryType::kIsNan:
    case UnaryType::kIsInf:
    case UnaryType::kIsFinite:
      return at::kBool;
    default:
      return at::isIntegralType(a.scalar_type(), true)
                 ? at::typeMetaToScalarType(at::get_default_dtype())
                 : a.scalar_type();
  }
}

template <UnaryType kOp>
struct UnaryOps {
  static const char* Name();
  static at::Tensor Fn(const at::Tensor& a) {
    at::Tensor out = Empty(a.sizes(), UnaryResultType(kOp, a));
    UnaryInto(Name(), kOp, a, out);
    return out;
  }
  static at::Tensor& Inplace(at::Tensor& a) {
    UnaryInto(Name(), kOp, a, a);
    return a;
  }
  static at::Tensor& Out(const at::Tensor& a, at::Tensor& out) {
    ResizeOut(out, a.sizes(), Name());
    UnaryInto(Name(), kOp, a, out);
    return out;
  }
};

#define NERVA_UNARY_NAME(op, name)              \
  template <>                                   \
  const char* UnaryOps<UnaryType::op>::Name() { \
    return name;                                \
  }
NERVA_UNARY_NAME(kAbs, "abs")
NERVA_UNARY_NAME(kNeg, "neg")
NERVA_UNARY_NAME(kExp, "exp")
NERVA_UNARY_NAME(kLog, "log")
NERVA_UNARY_NAME(kLog1p, "log1p")
NERVA_UNARY_NAME(kExpm1, "expm1")
NERVA_UNARY_NAME(kSqrt, "sqrt")
NERVA_UNARY_NAME(kRsqrt, "rsqrt")
NERVA_UNARY_NAME(kSin, "sin")
NERVA_UNARY_NAME(kCos, "cos")
NERVA_UNARY_NAME(kTanh, "tanh")
NERVA_UNARY_NAME(kErf, "erf")
NERVA_UNARY_NAME(kReciprocal, "reciprocal")
NERVA_UNARY_NAME(kFloor, "floor")
NERVA_UNARY_NAME(kCeil, "ceil")
NERVA_UNARY_NAME(kSign, "sign")
NERVA_UNARY_NAME(kLogicalNot, "logical_not")
#undef NERVA_UNARY_NAME

// x + value * t1 * t2, x + value * t1 / t2, x + w * (end - x).
void TernaryInto(const char* name, nerva::TernaryType op, const at::Tensor& x, const at::Tensor& t1,
                 const at::Tensor& t2, float value, const at::Tensor& out) {
  if (out.numel() == 0) return;
  const at::ScalarType type = out.scalar_type();
  Call call(name);
  Operand a = call.InAs(x, type), b = call.InAs(t1, type), c = call.InAs(t2, type);
  Operand o = call.Out(out);
  nerva::TernaryOption option;
  option.op_type = op;
  option.value = value;
  call.Run(nerva::Ternary::Create(GetQueue(), option, a.opt, a.buf, b.opt, b.buf, c.opt, c.buf,
                                  o.opt, o.buf));
}

template <nerva::TernaryType kOp>
at::Tensor& TernaryOut(const char* name, const at::Tensor& x, const at::Tensor& t1,
                       const at::Tensor& t2, float value, at::Tensor& out) {
  auto sizes = at::infer_size(at::infer_size(x.sizes(), t1.sizes()), t2.sizes());
  ResizeOut(out, sizes, name);
  if (out.is_same(x) || (!out.is_same(t1) && !out.is_same(t2))) {
    TernaryInto(name, kOp, x, t1, t2, value, out);
  } else {
    at::Tensor temp = Empty(sizes, out.scalar_type());
    TernaryInto(name, kOp, x, t1, t2, value, temp);
    DeviceCopy(out, temp, name);
  }
  return out;
}

at::Tensor& AddcmulOut(const at::Tensor& x, const at::Tensor& t1, const at::Tensor& t2,
                       const at::Scalar& value, at::Tensor& out) {
  return TernaryOut<nerva::TernaryType::kAddcmul>("addcmul", x, t1, t2, F(value), out);
}
at::Tensor& AddcmulInplace(at::Tensor& x, const at::Tensor& t1, const at::Tensor& t2,
                           const at::Scalar& value) {
  return AddcmulOut(x, t1, t2, value, x);
}
at::Tensor Addcmul(const at::Tensor& x, const at::Tensor& t1, const at::Tensor& t2,
                   const at::Scalar& value) {
  at::Tensor out = Empty({0}, at::result_type(x, t1));
  return AddcmulOut(x, t1, t2, value, out);
}
at::Tensor& AddcdivOut(const at::Tensor& x, const at::Tensor& t1, const at::Tensor& t2,
                       const at::Scalar& value, at::Tensor& out) {
  return TernaryOut<nerva::TernaryType::kAddcdiv>("addcdiv", x, t1, t2, F(value), out);
}
at::Tensor& AddcdivInplace(at::Tensor& x, const at::Tensor& t1, const at::Tensor& t2,
                           const at::Scalar& value) {
  return AddcdivOut(x, t1, t2, value, x);
}
at::Tensor Addcdiv(const at::Tensor& x, const at::Tensor& t1, const at::Tensor& t2,
                   const at::Scalar& value) {
  at::Tensor out = Empty({0}, at::result_type(x, t1));
  return AddcdivOut(x, t1, t2, value, out);
}
at::Tensor& LerpScalarOut(const at::Tensor& x, const at::Tensor& end, const at::Scalar& weight,
                          at::Tensor& out) {
  at::Tensor w = at::scalar_to_tensor(weight);
  return TernaryOut<nerva::TernaryType::kLerp>("lerp", x, end, w, 1.0f, out);
}
at::Tensor& LerpScalarInplace(at::Tensor& x, const at::Tensor& end, const at::Scalar& weight) {
  return LerpScalarOut(x, end, weight, x);
}

void RegisterElementwise(torch::Library& m) {
  m.impl("add.Tensor", TORCH_FN(Add));
  m.impl("add_.Tensor", TORCH_FN(AddInplace));
  m.impl("add.out", TORCH_FN(AddOut));
  m.impl("add.Scalar", TORCH_FN(AddScalar));
  m.impl("add_.Scalar", TORCH_FN(AddScalarInplace));
  m.impl("sub.Tensor", TORCH_FN(Sub));
  m.impl("sub_.Tensor", TORCH_FN(SubInplace));
  m.impl("sub.out", TORCH_FN(SubOut));
#define NERVA_BINARY(name, op)                                           \
  m.impl(name ".Tensor", TORCH_FN(BinaryOps<BinaryType::op>::Fn));       \
  m.impl(name "_.Tensor", TORCH_FN(BinaryOps<BinaryType::op>::Inplace)); \
  m.impl(name ".out", TORCH_FN(BinaryOps<BinaryType::op>::Out));         \
  m.impl(name ".Scalar", TORCH_FN(BinaryOps<BinaryType::op>::FnScalar)); \
  m.impl(name "_.Scalar", TORCH_FN(BinaryOps<BinaryType::op>::InplaceScalar));
  NERVA_BINARY("mul", kMul)
  NERVA_BINARY("div", kDiv)
  NERVA_BINARY("eq", kEq)
  NERVA_BINARY("ne", kNe)
  NERVA_BINARY("lt", kLt)
  NERVA_BINARY("le", kLe)
  NERVA_BINARY("gt", kGt)
  NERVA_BINARY("ge", kGe)
  NERVA_BINARY("remainder", kRemainder)
  NERVA_BINARY("fmod", kFmod)
#undef NERVA_BINARY
#define NERVA_BINARY_PLAIN(name, op)                     \
  m.impl(name, TORCH_FN(BinaryOps<BinaryType::op>::Fn)); \
  m.impl(name ".out", TORCH_FN(BinaryOps<BinaryType::op>::Out));
  NERVA_BINARY_PLAIN("maximum", kMaximum)
  NERVA_BINARY_PLAIN("minimum", kMinimum)
  NERVA_BINARY_PLAIN("atan2", kAtan2)
  NERVA_BINARY_PLAIN("logical_and", kLogicalAnd)
  NERVA_BINARY_PLAIN("logical_or", kLogicalOr)
#undef NERVA_BINARY_PLAIN
  m.impl("pow.Tensor_Tensor", TORCH_FN(BinaryOps<BinaryType::kPow>::Fn));
  m.impl("pow.Tensor_Tensor_out", TORCH_FN(BinaryOps<BinaryType::kPow>::Out));
  m.impl("pow.Tensor_Scalar", TORCH_FN(BinaryOps<BinaryType::kPow>::FnScalar));
  m.impl("pow_.Scalar", TORCH_FN(BinaryOps<BinaryType::kPow>::InplaceScalar));
#define NERVA_UNARY(name, op)                                   \
  m.impl(name, TORCH_FN(UnaryOps<UnaryType::op>::Fn));          \
  m.impl(name "_", TORCH_FN(UnaryOps<UnaryType::op>::Inplace)); \
  m.impl(name ".out", TORCH_FN(UnaryOps<UnaryType::op>::Out));
  NERVA_UNARY("abs", kAbs)
  NERVA_UNARY("neg", kNeg)
  NERVA_UNARY("exp", kExp)
  NERVA_UNARY("log", kLog)
  NERVA_UNARY("log1p", kLog1p)
  NERVA_UNARY("expm1", kExpm1)
  NERVA_UNARY("sqrt", kSqrt)
  NERVA_UNARY("rsqrt", kRsqrt)
  NERVA_UNARY("sin", kSin)
  NERVA_UNARY("cos", kCos)
  NERVA_UNARY("tanh", kTanh)
  NERVA_UNARY("erf", kErf)
  NERVA_UNARY("reciprocal", kReciprocal)
  NERVA_UNARY("floor", kFloor)
  NERVA_UNARY("ceil", kCeil)
  NERVA_UNARY("sign", kSign)
  NERVA_UNARY("logical_not", kLogicalNot)
#undef NERVA_UNARY
  m.impl("addcmul", TORCH_FN(Addcmul));
  m.impl("addcmul_", TORCH_FN(AddcmulInplace));
  m.impl("addcmul.out", TORCH_FN(AddcmulOut));
  m.impl("addcdiv", TORCH_FN(Addcdiv));
  m.impl("addcdiv_", TORCH_FN(AddcdivInplace));
  m.impl("addcdiv.out", TORCH_FN(AddcdivOut));
  m.impl("lerp_.Scalar", TORCH_FN(LerpScalarInplace));
  m.impl("lerp.Scalar_out", TORCH_FN(LerpScalarOut));
}

// ---------------------------------------------------------------- matrix products

void CheckFloating(const at::Tensor& t, const char* op) {
  ToNervaType(t.scalar_type(), op);
  TORCH_CHECK(at::isFloatingType(t.scalar_type()), "nerva_torch: ", op,
              ": expected a floating tensor, got ", t.scalar_type());
}

}  // namespace

void GemmInto(const char* name, const at::Tensor& a, const at::Tensor& b, const at::Tensor* input,
              float beta, float alpha, const at::Tensor& out) {
  CheckFloating(a, name);
  if (out.numel() == 0) return;
  if (a.size(-1) == 0) {
    // An empty inner dimension: the product is zero.
    if (input && beta != 0.0f) {
      DeviceCopy(out, *input, name);
      if (beta != 1.0f)
        BinaryInto(name, BinaryType::kMul, out, at::scalar_to_tensor(beta), 1.0f, out);
    } else {
      out.zero_();
    }
    return;
  }
  Call call(name);
  Operand x = call.InAs(a, out.scalar_type());
  Operand y = call.InAs(b, out.scalar_type());
  Operand o = call.Out(out);
  nerva::MatMulOption option;
  option.alpha = alpha;
  option.beta = beta;
  if (input && beta != 0.0f) {
    Operand c = call.InAs(*input, out.scalar_type());
    call.Run(nerva::MatMul::Create(GetQueue(), option, x.opt, x.buf, y.opt, y.buf, c.opt, c.buf,
                                   o.opt, o.buf));
  } else if (alpha == 1.0f) {
    call.Run(nerva::MatMul::Create(GetQueue(), option, x.opt, x.buf, y.opt, y.buf, o.opt, o.buf));
  } else {
    option.beta = 0.0f;
    at::Tensor zero = Empty({1}, out.scalar_type());
    zero.zero_();
    Operand c = call.In(zero);
    call.Run(nerva::MatMul::Create(GetQueue(), option, x.opt, x.buf, y.opt, y.buf, c.opt, c.buf,
                                   o.opt, o.buf));
  }
}

namespace {

// Writes into `out` through a temporary when out aliases an operand.
template <typename F>
at::Tensor& IntoOut(at::Tensor& out, at::IntArrayRef sizes, at::ScalarType type,
                    std::initializer_list<const at::Tensor*> operands, const char* name, F&& fn) {
  ResizeOut(out, sizes, name);
  bool alias = out.scalar_type() != type || !out.is_non_overlapping_and_dense();
  for (const at::Tensor* t : operands) {
    if (t && t->defined() && OnDevice(*t) && StorageBuffer(*t) == StorageBuffer(out) &&
        StorageBuffer(out)) {
      alias = true;
    }
  }
  if (!alias) {
    fn(out);
    return out;
  }
  at::Tensor temp = Empty(sizes, type);
  fn(temp);
  DeviceCopy(out, temp, name);
  return out;
}

at::Tensor Mm(const at::Tensor& a, const at::Tensor& b) {
  TORCH_CHECK(a.dim() == 2 && b.dim() == 2 && a.size(1) == b.size(0), "nerva_torch: mm: shapes ",
              a.sizes(), " and ", b.sizes(), " cannot be multiplied");
  at::Tensor out = Empty({a.size(0), b.size(1)}, a.scalar_type());
  GemmInto("mm", a, b, nullptr, 0.0f, 1.0f, out);
  return out;
}
at::Tensor& MmOut(const at::Tensor& a, const at::Tensor& b, at::Tensor& out) {
  TORCH_CHECK(a.dim() == 2 && b.dim() == 2 && a.size(1) == b.size(0), "nerva_torch: mm: shapes ",
              a.sizes(), " and ", b.sizes(), " cannot be multiplied");
  return IntoOut(out, {a.size(0), b.size(1)}, a.scalar_type(), {&a, &b}, "mm.out",
                 [&](const at::Tensor& o) { GemmInto("mm.out", a, b, nullptr, 0.0f, 1.0f, o); });
}
at::Tensor Bmm(const at::Tensor& a, const at::Tensor& b) {
  TORCH_CHECK(a.dim() == 3 && b.dim() == 3 && a.size(0) == b.size(0) && a.size(2) == b.size(1),
              "nerva_torch: bmm: shapes ", a.sizes(), " and ", b.sizes(), " cannot be multiplied");
  at::Tensor out = Empty({a.size(0), a.size(1), b.size(2)}, a.scalar_type());
  GemmInto("bmm", a, b, nullptr, 0.0f, 1.0f, out);
  return out;
}
at::Tensor& BmmOut(const at::Tensor& a, const at::Tensor& b, at::Tensor& out) {
  TORCH_CHECK(a.dim() == 3 && b.dim() == 3 && a.size(0) == b.size(0) && a.size(2) == b.size(1),
              "nerva_torch: bmm: shapes ", a.sizes(), " and ", b.sizes(), " cannot be multiplied");
  return IntoOut(out, {a.size(0), a.size(1), b.size(2)}, a.scalar_type(), {&a, &b}, "bmm.out",
                 [&](const at::Tensor& o) { GemmInto("bmm.out", a, b, nullptr, 0.0f, 1.0f, o); });
}
at::Tensor& AddmmOut(const at::Tensor& input, const at::Tensor& a, const at::Tensor& b,
                     const at::Scalar& beta, const at::Scalar& alpha, at::Tensor& out) {
  TORCH_CHECK(a.dim() == 2 && b.dim() == 2 && a.size(1) == b.size(0), "nerva_torch: addmm: shapes ",
              a.sizes(), " and ", b.sizes(), " cannot be multiplied");
  return IntoOut(
      out, {a.size(0), b.size(1)}, a.scalar_type(), {&input, &a, &b}, "addmm",
      [&](const at::Tensor& o) { GemmInto("addmm", a, b, &input, F(beta), F(alpha), o); });
}
at::Tensor Addmm(const at::Tensor& input, const at::Tensor& a, const at::Tensor& b,
                 const at::Scalar& beta, const at::Scalar& alpha) {
  at::Tensor out = Empty({0}, a.scalar_type());
  return AddmmOut(input, a, b, beta, alpha, out);
}
at::Tensor& AddmmInplace(at::Tensor& self, const at::Tensor& a, const at::Tensor& b,
                         const at::Scalar& beta, const at::Scalar& alpha) {
  return AddmmOut(self, a, b, beta, alpha, self);
}
at::Tensor& BaddbmmOut(const at::Tensor& input, const at::Tensor& a, const at::Tensor& b,
                       const at::Scalar& beta, const at::Scalar& alpha, at::Tensor& out) {
  TORCH_CHECK(a.dim() == 3 && b.dim() == 3 && a.size(0) == b.size(0) && a.size(2) == b.size(1),
              "nerva_torch: baddbmm: shapes ", a.sizes(), " and ", b.sizes(),
              " cannot be multiplied");
  return IntoOut(
      out, {a.size(0), a.size(1), b.size(2)}, a.scalar_type(), {&input, &a, &b}, "baddbmm",
      [&](const at::Tensor& o) { GemmInto("baddbmm", a, b, &input, F(beta), F(alpha), o); });
}
at::Tensor Baddbmm(const at::Tensor& input, const at::Tensor& a, const at::Tensor& b,
                   const at::Scalar& beta, const at::Scalar& alpha) {
  at::Tensor out = Empty({0}, a.scalar_type());
  return BaddbmmOut(input, a, b, beta, alpha, out);
}

void RegisterMatmul(torch::Library& m) {
  m.impl("mm", TORCH_FN(Mm));
  m.impl("mm.out", TORCH_FN(MmOut));
  m.impl("bmm", TORCH_FN(Bmm));
  m.impl("bmm.out", TORCH_FN(BmmOut));
  m.impl("addmm", TORCH_FN(Addmm));
  m.impl("addmm_", TORCH_FN(AddmmInplace));
  m.impl("addmm.out", TORCH_FN(AddmmOut));
  m.impl("baddbmm", TORCH_FN(Baddbmm));
  m.impl("baddbmm.out", TORCH_FN(BaddbmmOut));
}

// ---------------------------------------------------------------- activations

template <typename Make>
at::Tensor ActivationFn(const char* name, const at::Tensor& x, Make&& make) {
  CheckFloating(x, name);
  at::Tensor out = EmptyLike(x);
  if (out.numel() == 0) return out;
  // The activation program reads its input densely.
  at::Tensor input = x;
  if (!x.is_contiguous()) {
    input = EmptyLike(x);
    DeviceCopy(input, x, name);
  }
  Call call(name);
  Operand a = call.In(input), o = call.Out(out);
  call.Run(make(a, o));
  return out;
}

nerva::Kernel ActivationKernel(nerva::ActivationType type, float alpha, float beta,
                               const Operand& a, Operand& o) {
  nerva::ActivationOption option;
  option.op_type = type;
  option.alpha = alpha;
  option.beta = beta;
  return nerva::Activation::Create(GetQueue(), option, a.opt, a.buf, o.opt, o.buf);
}

at::Tensor Activation(const char* name, nerva::ActivationType type, const at::Tensor& x,
                      float alpha = 1.0f, float beta = 0.0f) {
  return ActivationFn(name, x, [&](const Operand& a, Operand& o) {
    return ActivationKernel(type, alpha, beta, a, o);
  });
}

at::Tensor& ActivationOut(const char* name, nerva::ActivationType type, const at::Tensor& x,
                          at::Tensor& out, float alpha = 1.0f, float beta = 0.0f) {
  ResizeOut(out, x.sizes(), name);
  at::Tensor result = Activation(name, type, x, alpha, beta);
  DeviceCopy(out, result, name);
  return out;
}

at::Tensor Relu(const at::Tensor& x) {
  return Activation("relu", nerva::kRelu, x);
}
at::Tensor& ReluInplace(at::Tensor& x) {
  return ActivationOut("relu_", nerva::kRelu, x, x);
}
at::Tensor Sigmoid(const at::Tensor& x) {
  return Activation("sigmoid", nerva::kSigmoid, x);
}
at::Tensor& SigmoidOut(const at::Tensor& x, at::Tensor& out) {
  return ActivationOut("sigmoid.out", nerva::kSigmoid, x, out);
}
at::Tensor& SigmoidInplace(at::Tensor& x) {
  return SigmoidOut(x, x);
}
at::Tensor Silu(const at::Tensor& x) {
  return Activation("silu", nerva::kSilu, x);
}
at::Tensor& SiluOut(const at::Tensor& x, at::Tensor& out) {
  return ActivationOut("silu.out", nerva::kSilu, x, out);
}
at::Tensor& SiluInplace(at::Tensor& x) {
  return SiluOut(x, x);
}
nerva::ActivationType GeluType(c10::string_view approximate) {
  return approximate == "tanh" ? nerva::kGeluApproximateTanh : nerva::kGelu;
}
at::Tensor Gelu(const at::Tensor& x, c10::string_view approximate) {
  return Activation("gelu", GeluType(approximate), x);
}
at::Tensor& GeluOut(const at::Tensor& x, c10::string_view approximate, at::Tensor& out) {
  return ActivationOut("gelu.out", GeluType(approximate), x, out);
}
at::Tensor LeakyRelu(const at::Tensor& x, const at::Scalar& slope) {
  return Activation("leaky_relu", nerva::kLeakyRelu, x, F(slope));
}
at::Tensor& LeakyReluOut(const at::Tensor& x, const at::Scalar& slope, at::Tensor& out) {
  return ActivationOut("leaky_relu.out", nerva::kLeakyRelu, x, out, F(slope));
}
at::Tensor& LeakyReluInplace(at::Tensor& x, const at::Scalar& slope) {
  return LeakyReluOut(x, slope, x);
}
at::Tensor Hardtanh(const at::Tensor& x, const at::Scalar& lo, const at::Scalar& hi) {
  return Activation("hardtanh", nerva::kHardTanh, x, F(lo), F(hi));
}
at::Tensor& HardtanhOut(const at::Tensor& x, const at::Scalar& lo, const at::Scalar& hi,
                        at::Tensor& out) {
  return ActivationOut("hardtanh.out", nerva::kHardTanh, x, out, F(lo), F(hi));
}
at::Tensor& HardtanhInplace(at::Tensor& x, const at::Scalar& lo, const at::Scalar& hi) {
  return HardtanhOut(x, lo, hi, x);
}

// Gradients of the form grad_input = f(grad_output, saved).
template <typename Make>
at::Tensor GradFn(const char* name, const at::Tensor& grad, const at::Tensor& saved, Make&& make) {
  CheckFloating(grad, name);
  at::Tensor out = Empty(grad.sizes(), grad.scalar_type());
  if (out.numel() == 0) return out;
  Call call(name);
  Operand g = call.In(grad), s = call.InAs(saved, grad.scalar_type()), o = call.Out(out);
  call.Run(make(g, s, o));
  return out;
}

template <typename Make>
at::Tensor& GradOut(const char* name, const at::Tensor& grad, const at::Tensor& saved,
                    at::Tensor& out, Make&& make) {
  ResizeOut(out, grad.sizes(), name);
  DeviceCopy(out, GradFn(name, grad, saved, std::forward<Make>(make)), name);
  return out;
}

at::Tensor ThresholdBackward(const at::Tensor& grad, const at::Tensor& self,
                             const at::Scalar& threshold) {
  return GradFn("threshold_backward", grad, self, [&](Operand& g, Operand& s, Operand& o) {
    nerva::ThresholdBackwardOption option;
    option.threshold = threshold.toDouble();
    return nerva::ThresholdBackward::Create(GetQueue(), option, g.opt, g.buf, s.opt, s.buf, o.opt,
                                            o.buf);
  });
}
at::Tensor& ThresholdBackwardOut(const at::Tensor& grad, const at::Tensor& self,
                                 const at::Scalar& threshold, at::Tensor& out) {
  ResizeOut(out, grad.sizes(), "threshold_backward.grad_input");
  DeviceCopy(out, ThresholdBackward(grad, self, threshold), "threshold_backward");
  return out;
}

#define NERVA_SIMPLE_GRAD(Fn, name, Kernel)                                               \
  at::Tensor Fn(const at::Tensor& grad, const at::Tensor& saved) {                        \
    return GradFn(name, grad, saved, [](Operand& g, Operand& s, Operand& o) {             \
      return nerva::Kernel::Create(GetQueue(), g.opt, g.buf, s.opt, s.buf, o.opt, o.buf); \
    });                                                                                   \
  }                                                                                       \
  at::Tensor& Fn##Out(const at::Tensor& grad, const at::Tensor& saved, at::Tensor& out) { \
    ResizeOut(out, grad.sizes(), name);                                                   \
    DeviceCopy(out, Fn(grad, saved), name);                                               \
    return out;                                                                           \
  }
NERVA_SIMPLE_GRAD(SigmoidBackward, "sigmoid_backward", SigmoidBackward)
NERVA_SIMPLE_GRAD(TanhBackward, "tanh_backward", TanHBackward)
NERVA_SIMPLE_GRAD(SiluBackward, "silu_backward", SiluBackward)
#undef NERVA_SIMPLE_GRAD

at::Tensor GeluBackward(const at::Tensor& grad, const at::Tensor& self,
                        c10::string_view approximate) {
  TORCH_CHECK(approximate == "none" || approximate == "tanh",
              "nerva_torch: gelu_backward: unknown approximate='", std::string(approximate), "'");
  if (approximate == "tanh") {
    // d/dx of 0.5 x (1 + tanh(u)), u = sqrt(2/pi) (x + 0.044715 x^3), composed on the device.
    constexpr double kAlpha = 0.7978845608028654, kBeta = 0.044715;
    const at::Tensor x2 = self * self;
    const at::Tensor t = at::tanh(kAlpha * (self + kBeta * x2 * self));
    const at::Tensor du = kAlpha * (1.0 + 3.0 * kBeta * x2);
    return grad * (0.5 * (1.0 + t) + 0.5 * self * (1.0 - t * t) * du);
  }
  return GradFn("gelu_backward", grad, self, [](Operand& g, Operand& s, Operand& o) {
    return nerva::GeLUBackward::Create(GetQueue(), g.opt, g.buf, s.opt, s.buf, o.opt, o.buf);
  });
}
at::Tensor& GeluBackwardOut(const at::Tensor& grad, const at::Tensor& self,
                            c10::string_view approximate, at::Tensor& out) {
  ResizeOut(out, grad.sizes(), "gelu_backward");
  DeviceCopy(out, GeluBackward(grad, self, approximate), "gelu_backward");
  return out;
}
at::Tensor LeakyReluBackward(const at::Tensor& grad, const at::Tensor& self,
                             const at::Scalar& slope, bool self_is_result) {
  return GradFn("leaky_relu_backward", grad, self, [&](Operand& g, Operand& s, Operand& o) {
    nerva::LeakyReluBackwardOption option;
    option.negative_slope = F(slope);
    option.self_is_result = self_is_result;
    return nerva::LeakyReluBackward::Create(GetQueue(), option, g.opt, g.buf, s.opt, s.buf, o.opt,
                                            o.buf);
  });
}

void RegisterActivations(torch::Library& m) {
  m.impl("relu", TORCH_FN(Relu));
  m.impl("relu_", TORCH_FN(ReluInplace));
  m.impl("sigmoid", TORCH_FN(Sigmoid));
  m.impl("sigmoid_", TORCH_FN(SigmoidInplace));
  m.impl("sigmoid.out", TORCH_FN(SigmoidOut));
  m.impl("silu", TORCH_FN(Silu));
  m.impl("silu_", TORCH_FN(SiluInplace));
  m.impl("silu.out", TORCH_FN(SiluOut));
  m.impl("gelu", TORCH_FN(Gelu));
  m.impl("gelu.out", TORCH_FN(GeluOut));
  m.impl("leaky_relu", TORCH_FN(LeakyRelu));
  m.impl("leaky_relu_", TORCH_FN(LeakyReluInplace));
  m.impl("leaky_relu.out", TORCH_FN(LeakyReluOut));
  m.impl("hardtanh", TORCH_FN(Hardtanh));
  m.impl("hardtanh_", TORCH_FN(HardtanhInplace));
  m.impl("hardtanh.out", TORCH_FN(HardtanhOut));
  m.impl("threshold_backward", TORCH_FN(ThresholdBackward));
  m.impl("threshold_backward.grad_input", TORCH_FN(ThresholdBackwardOut));
  m.impl("sigmoid_backward", TORCH_FN(SigmoidBackward));
  m.impl("sigmoid_backward.grad_input", TORCH_FN(SigmoidBackwardOut));
  m.impl("tanh_backward", TORCH_FN(TanhBackward));
  m.impl("tanh_backward.grad_input", TORCH_FN(TanhBackwardOut));
  m.impl("silu_backward", TORCH_FN(SiluBackward));
  m.impl("silu_backward.grad_input", TORCH_FN(SiluBackwardOut));
  m.impl("gelu_backward", TORCH_FN(GeluBackward));
  m.impl("gelu_backward.grad_input", TORCH_FN(GeluBackwardOut));
  m.impl("leaky_relu_backward", TORCH_FN(LeakyReluBackward));
}

}  // namespace

TORCH_LIBRARY_IMPL(aten, PrivateUse1, m) {
  RegisterElementwise(m);
  RegisterMatmul(m);
  RegisterActivations(m);
}

}  // namespace nerva_torch
