#include "nerva/platform/cl/kernel/attention/scaled_dot_product_attention_backward.h"

#include <algorithm>
#include <stdexcept>

#include "nerva/platform/cl/kernel/attention/attention_util.h"
#include "nerva/platform/cl/kernel/attention/scaled_dot_product_attention.h"
#include "nerva/platform/cl/kernel/norm/norm_util.h"
#include "nerva/platform/cl/kernel/random/philox.h"
#include "nerva/platform/cl/kernel/reduce/reduce_util.h"
#include "nerva/platform/cl/kernel/tensorcore/tc_attention.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {
constexpr int kRowBlock = 32;
}  // namespace

ScaledDotProductAttentionBackwardKernel::ScaledDotProductAttentionBackwardKernel(
    const ScaledDotProductAttentionBackwardOption& option, const TensorOption& grad_output_opt,
    const Buffer& grad_output, const TensorOption& query_opt, const Buffer& query,
    const TensorOption& key_opt, const Buffer& key, const TensorOption& value_opt,
    const Buffer& value, const TensorOption& attn_weights_opt, const Buffer& attn_weights,
    const TensorOption& grad_query_opt, Buffer& grad_query, const TensorOption& grad_key_opt,
    Buffer& grad_key, const TensorOption& grad_value_opt, Buffer& grad_value,
    const TensorOption& grad_attn_mask_opt, Buffer& grad_attn_mask,
    const TensorOption& grad_attn_weights_opt, Buffer& grad_attn_weights,
    const TensorOption& grad_scores_opt, Buffer& grad_scores, const TensorOption& delta_opt,
    Buffer& delta)
    : KernelImpl("ScaledDotProductAttentionBackward"),
      option_(option),
      grad_output_(OptionalTensor(grad_output_opt, grad_output)),
      query_(OptionalTensor(query_opt, query)),
      key_(OptionalTensor(key_opt, key)),
      value_(OptionalTensor(value_opt, value)),
      saved_(OptionalTensor(attn_weights_opt, attn_weights)),
      grad_query_(OptionalTensor(grad_query_opt, grad_query)),
      grad_key_(OptionalTensor(grad_key_opt, grad_key)),
      grad_value_(OptionalTensor(grad_value_opt, grad_value)),
      grad_mask_(OptionalTensor(grad_attn_mask_opt, grad_attn_mask)),
      grad_weights_(OptionalTensor(grad_attn_weights_opt, grad_attn_weights)),
      grad_scores_(OptionalTensor(grad_scores_opt, grad_scores)),
      delta_(OptionalTensor(delta_opt, delta)) {}

bool ScaledDotProductAttentionBackwardKernel::FromLogsumexp() const {
  return saved_.defined() && saved_.shape().ndim() + 1 == query_.shape().ndim();
}

bool ScaledDotProductAttentionBackwardKernel::Verify() const {
  const std::string op = name();
  const AttentionDims d = AttentionShapes(op, query_, key_, value_, option_.enable_gqa);
  const DataType t = query_.dtype();
  CheckShaped(op, "grad_output", grad_output_, d.Sizes(d.heads, d.L, d.Ev), t);
  std::vector<long> rows = d.Sizes(d.heads, d.L, 1);
  rows.pop_back();
  CheckPresent(op, "attn_weights", saved_);
  if (FromLogsumexp()) {
    CheckShaped(op, "attn_weights (logsumexp)", saved_, rows, kFloat);
  } else {
    CheckShaped(op, "attn_weights", saved_, d.Sizes(d.heads, d.L, d.S), t);
    if (option_.dropout_p > 0.0f) {
      throw std::invalid_argument(StrCat(op, ": dropout_p ", option_.dropout_p,
                                         " needs the forward's logsumexp, not its probabilities"));
    }
  }
  if (option_.dropout_p > 0.0f && !option_.use_seed) {
    throw std::invalid_argument(
        StrCat(op, ": dropout_p ", option_.dropout_p, " needs use_seed to redraw the dropout"));
  }
  if (!(option_.dropout_p >= 0.0f && option_.dropout_p <= 1.0f)) {
    throw std::invalid_argument(
        StrCat(op, ": dropout_p ", option_.dropout_p, " must be in [0, 1]"));
  }
  CheckSeed(op, option_.use_seed, option_.seed);
  CheckShaped(op, "grad_query", grad_query_, query_.shape().sizes(), t);
  CheckShaped(op, "grad_key", grad_key_, key_.shape().sizes(), t);
  CheckShaped(op, "grad_value", grad_value_, value_.shape().sizes(), t);
  const std::vector<long> scores = d.Sizes(d.heads, d.L, d.S);
  if (grad_weights_.defined()) CheckShaped(op, "grad_attn_weights", grad_weights_, scores, t);
  if (grad_scores_.defined()) CheckShaped(op, "grad_scores", grad_scores_, scores, kFloat);
  if (delta_.defined()) CheckShaped(op, "delta", delta_, rows, kFloat);
  if (grad_mask_.defined()) {
    if (grad_mask_.dtype() != t) {
      throw std::invalid_argument(
          StrCat(op, ": grad_attn_mask type ", grad_mask_.dtype(), " must be the query's ", t));
    }
    if (!FoldView(ExpandMask(op, grad_mask_, scores))) {
      throw std::runtime_error(StrCat(op, ": grad_attn_mask ", Shape(grad_mask_.shape().sizes()),
                                      " broadcasts over leading dimensions that do not fold"));
    }
  }
  for (const Tensor* out : {&grad_query_, &grad_key_, &grad_value_, &grad_weights_, &grad_scores_,
                            &delta_, &grad_mask_}) {
    if (out->defined() && !FoldView(*out)) {
      throw std::runtime_error(StrCat(op, ": output ", Shape(out->shape().sizes()),
                                      " must have foldable leading dimensions"));
    }
  }
  return true;
}

void ScaledDotProductAttentionBackwardKernel::Compile(std::shared_ptr<SessionImpl> session) {
  // Devices with a tensor unit run the tensor-core programs.
  if (TcSdpaBackward(
          *this, session,
          {option_, FromLogsumexp(), grad_output_, query_, key_, value_, saved_, grad_query_,
           grad_key_, grad_value_, grad_mask_, grad_weights_, grad_scores_, delta_},
          &keep_)) {
    return;
  }
  const AttentionDims d = AttentionShapes(name(), query_, key_, value_, option_.enable_gqa);
  const long heads = std::max(d.heads, 1L), kv_heads = std::max(d.kv_heads, 1L);
  const long batch = Count(d.lead);
  if (batch * heads == 0 || (d.L == 0 && d.S == 0)) return;
  const bool from_lse = FromLogsumexp();
  const View4 empty = EmptyView(session, &keep_);
  auto view = [&](const Tensor& t) {
    return t.defined() ? ViewOf(*this, session, t, &keep_) : empty;
  };
  const View4 dout = view(grad_output_), q = view(query_), k = view(key_), v = view(value_);
  const View4 probs = from_lse ? empty : view(saved_);
  const View4 lse = from_lse ? view(WithUnitColumn(saved_)) : empty;
  Tensor delta = delta_;
  if (!delta.defined()) {
    delta = Tensor(TensorOption{Shape({batch * heads * std::max(d.L, 1L)}), kFloat},
                   MakeScratchBuffer(session, batch * heads * std::max(d.L, 1L) * 4), 0);
    keep_.push_back(delta);
    delta = delta.AsStrided(d.Sizes(heads, d.L, 1), {heads * d.L, d.L, 1, 1}, 0);
  } else {
    delta = WithUnitColumn(delta);
  }
  Tensor ds = grad_scores_;
  if (grad_mask_.defined() && !ds.defined()) {
    const long n = batch * heads * d.L * d.S;
    ds = Tensor(TensorOption{Shape(std::vector<long>{batch, heads, d.L, d.S}), kFloat},
                MakeScratchBuffer(session, std::max(n, 1L) * 4), 0);
    keep_.push_back(ds);
  }
  const float scale = AttentionScale(option_.scale, d.E);
  const PhiloxDraw draw(session, option_.use_seed, option_.seed);
  BuildOption options;
  options.AddDefinition("DTYPE", GetDataTypeCode(query_.dtype()))
      .AddDefinitionAutoType("HEAD_DIM", static_cast<int>(std::max(d.E, 1L)))
      .AddDefinitionAutoType("VALUE_DIM", static_cast<int>(std::max(d.Ev, 1L)))
      .AddDefinitionAutoType("BQ", kRowBlock);
  const std::vector<std::string> sources{"common.h", "random.h", "attention.h",
                                         "scaled_dot_product_attention_backward.cl"};
  const std::string program = "ScaledDotProductAttention::backward";
  auto params = [&](KernelUnit& unit) {
    unit.SetArg(static_cast<int>(heads))
        .SetArg(static_cast<int>(d.L))
        .SetArg(static_cast<int>(d.S))
        .SetArg(static_cast<int>(heads / kv_heads))
        .SetArg(scale)
        .SetArg(option_.is_causal ? 1 : 0)
        .SetArg(0)
        .SetArg(from_lse ? 1 : 0)
        .SetArg(option_.dropout_p)
        .SetArg(static_cast<cl_ulong>(draw.state().seed))
        .SetArg(static_cast<cl_ulong>(draw.state().offset));
  };
  auto rounded = [](long n) {
    return static_cast<size_t>((n + kRowBlock - 1) / kRowBlock * kRowBlock);
  };
  const View4 delta_view = view(delta);
  if (d.L > 0) {
    auto unit = MakeSubKernel(session, program, sources, options, "sdpa_backward_query");
    unit->SetArgs(dout, q, k, v, probs, lse, view(grad_query_), delta_view, view(grad_weights_),
                  grad_weights_.defined() ? 1 : 0, view(ds), ds.defined() ? 1 : 0);
    params(*unit);
    unit->SetGlobal({rounded(d.L), static_cast<size_t>(heads), static_cast<size_t>(batch)})
        .SetLocal({kRowBlock, 1, 1});
  }
  if (d.S > 0) {
    auto unit = MakeSubKernel(session, program, sources, options, "sdpa_backward_kv");
    unit->SetArgs(dout, q, k, v, probs, lse, delta_view, view(grad_key_), view(grad_value_));
    params(*unit);
    unit->SetGlobal({rounded(d.S), static_cast<size_t>(kv_heads), static_cast<size_t>(batch)})
        .SetLocal({kRowBlock, 1, 1});
  }
  if (grad_mask_.defined() && d.L * d.S > 0) {
    const std::vector<long> scores = d.Sizes(heads, d.L, d.S);
    // The mask gradient seen like the scores: zero strides where it broadcasts.
    const View4 gm = *FoldView(ExpandMask(name(), grad_mask_, scores));
    const long full[4] = {batch, heads, d.L, d.S};
    int n[4], r[4];
    for (int a = 0; a < 4; ++a) {
      const bool broadcast = gm.strides[a] == 0 && full[a] > 1;
      n[a] = broadcast ? 1 : static_cast<int>(full[a]);
      r[a] = broadcast ? static_cast<int>(full[a]) : 1;
    }
    MakeSubKernel(session, program, sources, options, "sdpa_mask_grad")
        ->SetArgs(view(ds), gm, n[1], n[2], n[3], r[0], r[1], r[2], r[3])
        .SetGlobal({static_cast<size_t>(n[0]) * n[1] * n[2] * n[3]});
  }
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<ScaledDotProductAttentionBackwardKernel,
                 const ScaledDotProductAttentionBackwardOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&, const TensorOption&, Buffer&, const TensorOption&,
                 Buffer&, const TensorOption&, Buffer&, const TensorOption&, Buffer&,
                 const TensorOption&, Buffer&, const TensorOption&, Buffer&>(
          "ScaledDotProductAttentionBackward");
};

}  // namespace cl
}  // namespace nerva
