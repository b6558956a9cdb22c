// Native kernels of the PyTorch backend, multi-tensor: the _foreach_* operators that the
// optimisers run with foreach=True. Lists of dense device tensors whose tuples agree in
// type and shape go through nerva's multi-tensor kernels (up to 16 tensors a launch);
// other lists, and the per-tensor scalar forms, go tensor by tensor through the
// single-tensor operators.

#include <torch/library.h>

#include <vector>

#include "backend.h"
#include "nerva/kernel/elementwise.h"

namespace nerva_torch {

namespace {

using nerva::BinaryType;
using nerva::TernaryType;
using nerva::UnaryType;

// One list as nerva operands.
struct List {
  std::vector<nerva::TensorOption> opts;
  std::vector<nerva::Buffer> bufs;
  void Add(const Operand& o) {
    opts.push_back(o.opt);
    bufs.push_back(o.buf);
  }
};

void CheckLengths(const char* op, std::initializer_list<at::TensorList> lists) {
  for (at::TensorList l : lists) {
    TORCH_CHECK(l.size() == lists.begin()->size(), "nerva_torch: ", op,
                ": lists of different lengths (", lists.begin()->size(), " and ", l.size(), ")");
  }
}

// Whether every tuple is dense on the device with one type and shape.
bool Batchable(std::initializer_list<at::TensorList> lists) {
  const at::TensorList first = *lists.begin();
  for (size_t i = 0; i < first.size(); ++i) {
    for (at::TensorList l : lists) {
      const at::Tensor& t = l[i];
      if (!OnDevice(t) || !t.is_contiguous() || t.scalar_type() != first[i].scalar_type() ||
          t.sizes() != first[i].sizes() || t.scalar_type() == at::kDouble ||
          !at::isFloatingType(t.scalar_type())) {
        return false;
      }
    }
  }
  return true;
}

std::vector<at::Tensor> EmptyLikeList(at::TensorList self) {
  std::vector<at::Tensor> out;
  for (const at::Tensor& t : self) out.push_back(EmptyLike(t));
  return out;
}

// Binds tuple i of every list, skipping empty tuples; the last list is the output.
std::vector<List> Bind(Call& call, std::initializer_list<at::TensorList> lists) {
  std::vector<List> bound(lists.size());
  const at::TensorList first = *lists.begin();
  for (size_t i = 0; i < first.size(); ++i) {
    if (first[i].numel() == 0) continue;
    size_t k = 0;
    for (at::TensorList l : lists) {
      bound[k].Add(k + 1 == lists.size() ? call.Out(l[i]) : call.In(l[i]));
      ++k;
    }
  }
  return bound;
}

void RunUnary(const char* op, UnaryType type, at::TensorList self, at::TensorList out) {
  Call call(op);
  auto b = Bind(call, {self, out});
  if (b[0].opts.empty()) return;
  nerva::ForEachUnaryOption option;
  option.op_type = type;
  call.Run(
      nerva::ForEachUnary::Create(GetQueue(), option, b[0].opts, b[0].bufs, b[1].opts, b[1].bufs));
}

void RunBinary(const char* op, BinaryType type, float alpha, at::TensorList self,
               at::TensorList other, at::TensorList out) {
  Call call(op);
  auto b = Bind(call, {self, other, out});
  if (b[0].opts.empty()) return;
  nerva::ForEachBinaryOption option;
  option.op_type = type;
  option.alpha = alpha;
  call.Run(nerva::ForEachBinary::Create(GetQueue(), option, b[0].opts, b[0].bufs, b[1].opts,
                                        b[1].bufs, b[2].opts, b[2].bufs));
}

void RunTernary(const char* op, TernaryType type, float value, at::TensorList self,
                at::TensorList t1, at::TensorList t2, at::TensorList out) {
  Call call(op);
  auto b = Bind(call, {self, t1, t2, out});
  if (b[0].opts.empty()) return;
  nerva::ForEachTernaryOption option;
  option.op_type = type;
  option.value = value;
  call.Run(nerva::ForEachTernary::Create(GetQueue(), option, b[0].opts, b[0].bufs, b[1].opts,
                                         b[1].bufs, b[2].opts, b[2].bufs, b[3].opts, b[3].bufs));
}

float F(const at::Scalar& s) {
  return static_cast<float>(s.toDouble());
}

// ---------------------------------------------------------------- unary

template <UnaryType kOp>
struct Unary {
  static at::Tensor One(const at::Tensor& t);
  static void Inplace(at::TensorList self) {
    if (Batchable({self})) return RunUnary("_foreach_unary_", kOp, self, self);
    for (const at::Tensor& t : self) t.copy_(One(t));
  }
  static std::vector<at::Tensor> Fn(at::TensorList self) {
    if (Batchable({self})) {
      auto out = EmptyLikeList(self);
      RunUnary("_foreach_unary", kOp, self, out);
      return out;
    }
    std::vector<at::Tensor> out;
    for (const at::Tensor& t : self) out.push_back(One(t));
    return out;
  }
};
template <>
at::Tensor Unary<UnaryType::kSqrt>::One(const at::Tensor& t) {
  return at::sqrt(t);
}
template <>
at::Tensor Unary<UnaryType::kNeg>::One(const at::Tensor& t) {
  return at::neg(t);
}
template <>
at::Tensor Unary<UnaryType::kReciprocal>::One(const at::Tensor& t) {
  return at::reciprocal(t);
}
template <>
at::Tensor Unary<UnaryType::kExp>::One(const at::Tensor& t) {
  return at::exp(t);
}
template <>
at::Tensor Unary<UnaryType::kAbs>::One(const at::Tensor& t) {
  return at::abs(t);
}

// ---------------------------------------------------------------- binary

// a op b for one pair, through the single-tensor operators.
at::Tensor BinaryOne(BinaryType op, const at::Tensor& a, const at::Tensor& b, float alpha) {
  switch (op) {
    case BinaryType::kAdd:
      return at::add(a, b, alpha);
    case BinaryType::kSub:
      return at::sub(a, b, alpha);
    case BinaryType::kMul:
      return at::mul(a, b);
    case BinaryType::kDiv:
      return at::div(a, b);
    case BinaryType::kMaximum:
      return at::maximum(a, b);
    default:
      return at::minimum(a, b);
  }
}

template <BinaryType kOp>
struct Binary {
  static void ListInplace(at::TensorList self, at::TensorList other, float alpha) {
    CheckLengths("_foreach_binary_", {self, other});
    if (Batchable({self, other}))
      return RunBinary("_foreach_binary_", kOp, alpha, self, other, self);
    for (size_t i = 0; i < self.size(); ++i)
      self[i].copy_(BinaryOne(kOp, self[i], other[i], alpha));
  }
  static std::vector<at::Tensor> ListFn(at::TensorList self, at::TensorList other, float alpha) {
    CheckLengths("_foreach_binary", {self, other});
    if (Batchable({self, other})) {
      auto out = EmptyLikeList(self);
      RunBinary("_foreach_binary", kOp, alpha, self, other, out);
      return out;
    }
    std::vector<at::Tensor> out;
    for (size_t i = 0; i < self.size(); ++i)
      out.push_back(BinaryOne(kOp, self[i], other[i], alpha));
    return out;
  }
  // Lists without alpha.
  static void ListInplacePlain(at::TensorList self, at::TensorList other) {
    ListInplace(self, other, 1.0f);
  }
  static std::vector<at::Tensor> ListFnPlain(at::TensorList self, at::TensorList other) {
    return ListFn(self, other, 1.0f);
  }
  static void ListInplaceAlpha(at::TensorList self, at::TensorList other, const at::Scalar& alpha) {
    ListInplace(self, other, F(alpha));
  }
  static std::vector<at::Tensor> ListFnAlpha(at::TensorList self, at::TensorList other,
                                             const at::Scalar& alpha) {
    return ListFn(self, other, F(alpha));
  }
  // One scalar for every tensor, or one scalar per tensor.
  static void ScalarInplace(at::TensorList self, const at::Scalar& s) {
    for (const at::Tensor& t : self) t.copy_(BinaryOne(kOp, t, at::scalar_to_tensor(s), 1.0f));
  }
  static std::vector<at::Tensor> ScalarFn(at::TensorList self, const at::Scalar& s) {
    std::vector<at::Tensor> out;
    for (const at::Tensor& t : self)
      out.push_back(BinaryOne(kOp, t, at::scalar_to_tensor(s), 1.0f));
    return out;
  }
  static void ScalarListInplace(at::TensorList self, at::ArrayRef<at::Scalar> s) {
    TORCH_CHECK(self.size() == s.size(), "nerva_torch: _foreach: ", self.size(), " tensors and ",
                s.size(), " scalars");
    for (size_t i = 0; i < self.size(); ++i) ScalarInplace(self.slice(i, 1), s[i]);
  }
  static std::vector<at::Tensor> ScalarListFn(at::TensorList self, at::ArrayRef<at::Scalar> s) {
    TORCH_CHECK(self.size() == s.size(), "nerva_torch: _foreach: ", self.size(), " tensors and ",
                s.size(), " scalars");
    std::vector<at::Tensor> out;
    for (size_t i = 0; i < self.size(); ++i) out.push_back(ScalarFn(self.slice(i, 1), s[i])[0]);
    return out;
  }
};

// ---------------------------------------------------------------- ternary

template <TernaryType kOp>
struct Ternary {
  static at::Tensor One(const at::Tensor& x, const at::Tensor& a, const at::Tensor& b,
                        const at::Scalar& v) {
    return kOp == TernaryType::kAddcmul ? at::addcmul(x, a, b, v) : at::addcdiv(x, a, b, v);
  }
  static void Inplace(at::TensorList self, at::TensorList t1, at::TensorList t2,
                      const at::Scalar& value) {
    CheckLengths("_foreach_ternary_", {self, t1, t2});
    if (Batchable({self, t1, t2})) {
      return RunTernary("_foreach_ternary_", kOp, F(value), self, t1, t2, self);
    }
    for (size_t i = 0; i < self.size(); ++i) self[i].copy_(One(self[i], t1[i], t2[i], value));
  }
  static std::vector<at::Tensor> Fn(at::TensorList self, at::TensorList t1, at::TensorList t2,
                                    const at::Scalar& value) {
    CheckLengths("_foreach_ternary", {self, t1, t2});
    if (Batchable({self, t1, t2})) {
      auto out = EmptyLikeList(self);
      RunTernary("_foreach_ternary", kOp, F(value), self, t1, t2, out);
      return out;
    }
    std::vector<at::Tensor> out;
    for (size_t i = 0; i < self.size(); ++i) out.push_back(One(self[i], t1[i], t2[i], value));
    return out;
  }
  static void ScalarListInplace(at::TensorList self, at::TensorList t1, at::TensorList t2,
                                at::ArrayRef<at::Scalar> values) {
    CheckLengths("_foreach_ternary_", {self, t1, t2});
    TORCH_CHECK(self.size() == values.size(), "nerva_torch: _foreach: ", self.size(),
                " tensors and ", values.size(), " scalars");
    for (size_t i = 0; i < self.size(); ++i) {
      Inplace(self.slice(i, 1), t1.slice(i, 1), t2.slice(i, 1), values[i]);
    }
  }
  static std::vector<at::Tensor> ScalarListFn(at::TensorList self, at::TensorList t1,
                                              at::TensorList t2, at::ArrayRef<at::Scalar> values) {
    CheckLengths("_foreach_ternary", {self, t1, t2});
    TORCH_CHECK(self.size() == values.size(), "nerva_torch: _foreach: ", self.size(),
                " tensors and ", values.size(), " scalars");
    std::vector<at::Tensor> out;
    for (size_t i = 0; i < self.size(); ++i) out.push_back(One(self[i], t1[i], t2[i], values[i]));
    return out;
  }
};

void ForeachZero(at::TensorList self) {
  for (const at::Tensor& t : self) t.zero_();
}

}  // namespace

TORCH_LIBRARY_IMPL(aten, PrivateUse1, m) {
#define NERVA_FOREACH_UNARY(name, op)                           \
  m.impl("_foreach_" name, TORCH_FN(Unary<UnaryType::op>::Fn)); \
  m.impl("_foreach_" name "_", TORCH_FN(Unary<UnaryType::op>::Inplace));
  NERVA_FOREACH_UNARY("sqrt", kSqrt)
  NERVA_FOREACH_UNARY("neg", kNeg)
  NERVA_FOREACH_UNARY("reciprocal", kReciprocal)
  NERVA_FOREACH_UNARY("exp", kExp)
  NERVA_FOREACH_UNARY("abs", kAbs)
#undef NERVA_FOREACH_UNARY
#define NERVA_FOREACH_SCALARS(name, op)                                                   \
  m.impl("_foreach_" name ".Scalar", TORCH_FN(Binary<BinaryType::op>::ScalarFn));         \
  m.impl("_foreach_" name "_.Scalar", TORCH_FN(Binary<BinaryType::op>::ScalarInplace));   \
  m.impl("_foreach_" name ".ScalarList", TORCH_FN(Binary<BinaryType::op>::ScalarListFn)); \
  m.impl("_foreach_" name "_.ScalarList", TORCH_FN(Binary<BinaryType::op>::ScalarListInplace));
  NERVA_FOREACH_SCALARS("add", kAdd)
  NERVA_FOREACH_SCALARS("sub", kSub)
  NERVA_FOREACH_SCALARS("mul", kMul)
  NERVA_FOREACH_SCALARS("div", kDiv)
#undef NERVA_FOREACH_SCALARS
  m.impl("_foreach_add.List", TORCH_FN(Binary<BinaryType::kAdd>::ListFnAlpha));
  m.impl("_foreach_add_.List", TORCH_FN(Binary<BinaryType::kAdd>::ListInplaceAlpha));
  m.impl("_foreach_sub.List", TORCH_FN(Binary<BinaryType::kSub>::ListFnAlpha));
  m.impl("_foreach_sub_.List", TORCH_FN(Binary<BinaryType::kSub>::ListInplaceAlpha));
  m.impl("_foreach_mul.List", TORCH_FN(Binary<BinaryType::kMul>::ListFnPlain));
  m.impl("_foreach_mul_.List", TORCH_FN(Binary<BinaryType::kMul>::ListInplacePlain));
  m.impl("_foreach_div.List", TORCH_FN(Binary<BinaryType::kDiv>::ListFnPlain));
  m.impl("_foreach_div_.List", TORCH_FN(Binary<BinaryType::kDiv>::ListInplacePlain));
  m.impl("_foreach_maximum.List", TORCH_FN(Binary<BinaryType::kMaximum>::ListFnPlain));
  m.impl("_foreach_maximum_.List", TORCH_FN(Binary<BinaryType::kMaximum>::ListInplacePlain));
  m.impl("_foreach_minimum.List", TORCH_FN(Binary<BinaryType::kMinimum>::ListFnPlain));
  m.impl("_foreach_minimum_.List", TORCH_FN(Binary<BinaryType::kMinimum>::ListInplacePlain));
#define NERVA_FOREACH_TERNARY(name, op)                                                     \
  m.impl("_foreach_" name ".Scalar", TORCH_FN(Ternary<TernaryType::op>::Fn));               \
  m.impl("_foreach_" name "_.Scalar", TORCH_FN(Ternary<TernaryType::op>::Inplace));         \
  m.impl("_foreach_" name ".ScalarList", TORCH_FN(Ternary<TernaryType::op>::ScalarListFn)); \
  m.impl("_foreach_" name "_.ScalarList", TORCH_FN(Ternary<TernaryType::op>::ScalarListInplace));
  NERVA_FOREACH_TERNARY("addcmul", kAddcmul)
  NERVA_FOREACH_TERNARY("addcdiv", kAddcdiv)
#undef NERVA_FOREACH_TERNARY
  m.impl("_foreach_zero_", TORCH_FN(ForeachZero));
}

}  // namespace nerva_torch
