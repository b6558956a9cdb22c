// Native kernels of the PyTorch backend, attention: torch._C._nn._scaled_dot_product_attention
// runs as nerva's fused ScaledDotProductAttention, and its gradient as
// ScaledDotProductAttentionBackward from the saved probabilities.

#include <torch/csrc/autograd/custom_function.h>
#include <torch/library.h>

#include <tuple>
#include <vector>

#include "backend.h"
#include "nerva/kernel/transformers.h"

namespace nerva_torch {

namespace {

using torch::autograd::AutogradContext;
using torch::autograd::variable_list;

struct Attention {
  at::Tensor out, probabilities;
};

std::vector<int64_t> ScoreSizes(const at::Tensor& query, const at::Tensor& key) {
  std::vector<int64_t> sizes = query.sizes().vec();
  sizes.back() = key.size(-2);
  return sizes;
}

void CheckOperands(const char* name, const at::Tensor& q, const at::Tensor& k, const at::Tensor& v,
                   const c10::optional<at::Tensor>& mask, bool is_causal) {
  ToNervaType(q.scalar_type(), name);
  TORCH_CHECK(at::isFloatingType(q.scalar_type()) && q.scalar_type() == k.scalar_type() &&
                  q.scalar_type() == v.scalar_type(),
              "nerva_torch: ", name, ": query, key and value must share a floating type, got ",
              q.scalar_type(), ", ", k.scalar_type(), ", ", v.scalar_type());
  TORCH_CHECK(q.dim() >= 2 && q.dim() == k.dim() && q.dim() == v.dim(), "nerva_torch: ", name,
              ": query ", q.sizes(), ", key ", k.sizes(), " and value ", v.sizes(),
              " need the same rank, at least 2");
  TORCH_CHECK(!(is_causal && mask && mask->defined()), "nerva_torch: ", name,
              ": give either attn_mask or is_causal");
}

// The forward on the device; the probabilities (after dropout) are kept when asked for.
Attention Forward(const at::Tensor& q, const at::Tensor& k, const at::Tensor& v,
                  const c10::optional<at::Tensor>& mask, double dropout_p, bool is_causal,
                  bool keep_probabilities) {
  const char* name = "_scaled_dot_product_attention";
  CheckOperands(name, q, k, v, mask, is_causal);
  std::vector<int64_t> out_sizes = q.sizes().vec();
  out_sizes.back() = v.size(-1);
  Attention result;
  result.out = Empty(out_sizes, q.scalar_type());
  if (keep_probabilities) result.probabilities = Empty(ScoreSizes(q, k), q.scalar_type());
  if (result.out.numel() == 0) return result;
  std::vector<int64_t> row_sizes = q.sizes().vec();
  row_sizes.pop_back();
  at::Tensor logsumexp = Empty(row_sizes, at::kFloat);
  Call call(name);
  Operand qo = call.In(q), ko = call.In(k), vo = call.In(v);
  Operand mo = mask && mask->defined() ? call.In(*mask) : Call::None();
  Operand oo = call.Out(result.out), lo = call.Out(logsumexp);
  Operand po = keep_probabilities ? call.Out(result.probabilities) : Call::None();
  nerva::ScaledDotProductAttentionOption option;
  option.dropout_p = static_cast<float>(dropout_p);
  option.is_causal = is_causal;
  call.Run(nerva::ScaledDotProductAttention::Create(GetQueue(), option, qo.opt, qo.buf, ko.opt,
                                                    ko.buf, vo.opt, vo.buf, mo.opt, mo.buf, oo.opt,
                                                    oo.buf, lo.opt, lo.buf, po.opt, po.buf));
  return result;
}

// Without autograd (inference, or no input needs a gradient).
std::tuple<at::Tensor, at::Tensor> SdpaNoGrad(const at::Tensor& q, const at::Tensor& k,
                                              const at::Tensor& v,
                                              const c10::optional<at::Tensor>& mask,
                                              double dropout_p, bool need_attn_weights,
                                              bool is_causal) {
  Attention a = Forward(q, k, v, mask, dropout_p, is_causal, need_attn_weights);
  return {a.out, need_attn_weights ? a.probabilities : Empty({0}, q.scalar_type())};
}

class SdpaFunction : public torch::autograd::Function<SdpaFunction> {
 public:
  static variable_list forward(AutogradContext* ctx, const at::Tensor& q, const at::Tensor& k,
                               const at::Tensor& v, const c10::optional<at::Tensor>& mask,
                               double dropout_p, bool need_attn_weights, bool is_causal) {
    at::AutoDispatchBelowADInplaceOrView guard;
    Attention a = Forward(q, k, v, mask, dropout_p, is_causal, true);
    ctx->save_for_backward({q, k, v, a.probabilities});
    ctx->saved_data["dropout_p"] = dropout_p;
    ctx->saved_data["is_causal"] = is_causal;
    at::Tensor weights = need_attn_weights ? a.probabilities : Empty({0}, q.scalar_type());
    ctx->mark_non_differentiable({weights});
    return {a.out, weights};
  }

  static variable_list backward(AutogradContext* ctx, variable_list grads) {
    const char* name = "_scaled_dot_product_attention_backward";
    const auto saved = ctx->get_saved_variables();
    const at::Tensor &q = saved[0], &k = saved[1], &v = saved[2], &p = saved[3];
    at::Tensor gq = Empty(q.sizes(), q.scalar_type()), gk = Empty(k.sizes(), k.scalar_type());
    at::Tensor gv = Empty(v.sizes(), v.scalar_type());
    std::vector<int64_t> out_sizes = q.sizes().vec();
    out_sizes.back() = v.size(-1);
    const at::Tensor grad = grads[0].defined() ? grads[0] : at::zeros(out_sizes, q.options());
    if (q.numel() > 0 && k.numel() > 0) {
      std::vector<int64_t> row_sizes = q.sizes().vec();
      row_sizes.pop_back();
      at::Tensor grad_weights = Empty(p.sizes(), q.scalar_type());
      at::Tensor grad_scores = Empty(p.sizes(), at::kFloat);
      at::Tensor delta = Empty(row_sizes, at::kFloat);
      Call call(name);
      Operand go = call.In(grad), qo = call.In(q), ko = call.In(k), vo = call.In(v),
              po = call.In(p);
      Operand gqo = call.Out(gq), gko = call.Out(gk), gvo = call.Out(gv), none = Call::None();
      Operand gwo = call.Out(grad_weights), gso = call.Out(grad_scores), dso = call.Out(delta);
      nerva::ScaledDotProductAttentionBackwardOption option;
      option.dropout_p = static_cast<float>(ctx->saved_data["dropout_p"].toDouble());
      option.is_causal = ctx->saved_data["is_causal"].toBool();
      call.Run(nerva::ScaledDotProductAttentionBackward::Create(
          GetQueue(), option, go.opt, go.buf, qo.opt, qo.buf, ko.opt, ko.buf, vo.opt, vo.buf,
          po.opt, po.buf, gqo.opt, gqo.buf, gko.opt, gko.buf, gvo.opt, gvo.buf, none.opt, none.buf,
          gwo.opt, gwo.buf, gso.opt, gso.buf, dso.opt, dso.buf));
    } else {
      gq.zero_();
      gk.zero_();
      gv.zero_();
    }
    return {gq, gk, gv, at::Tensor(), at::Tensor(), at::Tensor(), at::Tensor()};
  }
};

std::tuple<at::Tensor, at::Tensor> SdpaAutograd(const at::Tensor& q, const at::Tensor& k,
                                                const at::Tensor& v,
                                                const c10::optional<at::Tensor>& mask,
                                                double dropout_p, bool need_attn_weights,
                                                bool is_causal) {
  variable_list result =
      SdpaFunction::apply(q, k, v, mask, dropout_p, need_attn_weights, is_causal);
  return {result[0], result[1]};
}

}  // namespace

TORCH_LIBRARY_IMPL(aten, PrivateUse1, m) {
  m.impl("_scaled_dot_product_attention", TORCH_FN(SdpaNoGrad));
  m.impl("_scaled_dot_product_attention_forward", TORCH_FN(SdpaNoGrad));
}

TORCH_LIBRARY_IMPL(aten, AutogradPrivateUse1, m) {
  m.impl("_scaled_dot_product_attention", TORCH_FN(SdpaAutograd));
}

}  // namespace nerva_torch
