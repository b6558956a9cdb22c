#include "nerva/platform/cl/kernel/attention/gptj.h"

#include <stdexcept>

#include "nerva/kernel/norm_option.h"
#include "nerva/platform/cl/kernel/attention/attention_util.h"
#include "nerva/platform/cl/kernel/attention/scaled_dot_product_attention.h"
#include "nerva/platform/cl/kernel/elementwise/activation.h"
#include "nerva/platform/cl/kernel/elementwise/binary.h"
#include "nerva/platform/cl/kernel/gemm/matmul.h"
#include "nerva/platform/cl/kernel/norm/layernorm.h"
#include "nerva/platform/cl/kernel/tensorcore/tc_frame.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

GPTJKernel::GPTJKernel(
    const GPTJBlockOption& option, const TensorOption& hidden_states_opt,
    const Buffer& hidden_states, const TensorOption& ln_weight_opt, const Buffer& ln_weight,
    const TensorOption& ln_bias_opt, const Buffer& ln_bias, const TensorOption& q_weight_opt,
    const Buffer& q_weight, const TensorOption& k_weight_opt, const Buffer& k_weight,
    const TensorOption& v_weight_opt, const Buffer& v_weight,
    const TensorOption& out_proj_weight_opt, const Buffer& out_proj_weight,
    const TensorOption& fc_in_weight_opt, const Buffer& fc_in_weight,
    const TensorOption& fc_in_bias_opt, const Buffer& fc_in_bias,
    const TensorOption& fc_out_weight_opt, const Buffer& fc_out_weight,
    const TensorOption& fc_out_bias_opt, const Buffer& fc_out_bias, const TensorOption& sin_opt,
    const Buffer& sin, const TensorOption& cos_opt, const Buffer& cos,
    const TensorOption& attention_mask_opt, const Buffer& attention_mask,
    const TensorOption& position_ids_opt, const Buffer& position_ids,
    const TensorOption& past_key_opt, const Buffer& past_key, const TensorOption& past_value_opt,
    const Buffer& past_value, const TensorOption& out_opt, Buffer& out,
    const TensorOption& present_key_opt, Buffer& present_key, const TensorOption& present_value_opt,
    Buffer& present_value, const TensorOption& ln_out_opt, Buffer& ln_out,
    const TensorOption& query_opt, Buffer& query, const TensorOption& key_opt, Buffer& key,
    const TensorOption& value_opt, Buffer& value, const TensorOption& attn_scores_opt,
    Buffer& attn_scores, const TensorOption& attn_out_opt, Buffer& attn_out,
    const TensorOption& mlp_hidden_opt, Buffer& mlp_hidden, const TensorOption& mlp_out_opt,
    Buffer& mlp_out)
    : KernelImpl("GPTJBlock") {
  config_ = {option.num_heads,
             option.head_dim,
             option.rotary_dim,
             option.layer_norm_eps,
             option.scale,
             option.is_causal,
             false};
  const std::pair<const TensorOption*, const Buffer*> args[] = {
      {&hidden_states_opt, &hidden_states},
      {&ln_weight_opt, &ln_weight},
      {&ln_bias_opt, &ln_bias},
      {&q_weight_opt, &q_weight},
      {&k_weight_opt, &k_weight},
      {&v_weight_opt, &v_weight},
      {&out_proj_weight_opt, &out_proj_weight},
      {&fc_in_weight_opt, &fc_in_weight},
      {&fc_in_bias_opt, &fc_in_bias},
      {&fc_out_weight_opt, &fc_out_weight},
      {&fc_out_bias_opt, &fc_out_bias},
      {&sin_opt, &sin},
      {&cos_opt, &cos},
      {&attention_mask_opt, &attention_mask},
      {&position_ids_opt, &position_ids},
      {&past_key_opt, &past_key},
      {&past_value_opt, &past_value},
      {&out_opt, &out},
      {&present_key_opt, &present_key},
      {&present_value_opt, &present_value},
      {&ln_out_opt, &ln_out},
      {&query_opt, &query},
      {&key_opt, &key},
      {&value_opt, &value},
      {&attn_scores_opt, &attn_scores},
      {&attn_out_opt, &attn_out},
      {&mlp_hidden_opt, &mlp_hidden},
      {&mlp_out_opt, &mlp_out}};
  for (const auto& [opt, buf] : args) t_.push_back(OptionalInput(*opt, *buf));
  t_.resize(kSlots);
}

GPTJKernel::GPTJKernel(const GPTJDecodeOption& option, const TensorOption& hidden_states_opt,
                       const Buffer& hidden_states, const TensorOption& ln_weight_opt,
                       const Buffer& ln_weight, const TensorOption& ln_bias_opt,
                       const Buffer& ln_bias, const TensorOption& q_weight_opt,
                       const Buffer& q_weight, const TensorOption& k_weight_opt,
                       const Buffer& k_weight, const TensorOption& v_weight_opt,
                       const Buffer& v_weight, const TensorOption& out_proj_weight_opt,
                       const Buffer& out_proj_weight, const TensorOption& fc_in_weight_opt,
                       const Buffer& fc_in_weight, const TensorOption& fc_in_bias_opt,
                       const Buffer& fc_in_bias, const TensorOption& fc_out_weight_opt,
                       const Buffer& fc_out_weight, const TensorOption& fc_out_bias_opt,
                       const Buffer& fc_out_bias, const TensorOption& sin_opt, const Buffer& sin,
                       const TensorOption& cos_opt, const Buffer& cos,
                       const TensorOption& attention_mask_opt, const Buffer& attention_mask,
                       const TensorOption& position_ids_opt, const Buffer& position_ids,
                       const TensorOption& key_cache_opt, const Buffer& key_cache,
                       const TensorOption& value_cache_opt, const Buffer& value_cache,
                       const TensorOption& out_opt, Buffer& out,
                       const TensorOption& new_key_cache_opt, Buffer& new_key_cache,
                       const TensorOption& new_value_cache_opt, Buffer& new_value_cache,
                       const TensorOption& ln_out_opt, Buffer& ln_out, const TensorOption& qkv_opt,
                       Buffer& qkv, const TensorOption& attn_out_opt, Buffer& attn_out,
                       const TensorOption& mlp_hidden_opt, Buffer& mlp_hidden)
    : KernelImpl("GPTJDecode") {
  config_ = {option.num_heads,
             option.head_dim,
             option.rotary_dim,
             option.layer_norm_eps,
             option.scale,
             false,
             true};
  const std::pair<const TensorOption*, const Buffer*> args[] = {
      {&hidden_states_opt, &hidden_states},
      {&ln_weight_opt, &ln_weight},
      {&ln_bias_opt, &ln_bias},
      {&q_weight_opt, &q_weight},
      {&k_weight_opt, &k_weight},
      {&v_weight_opt, &v_weight},
      {&out_proj_weight_opt, &out_proj_weight},
      {&fc_in_weight_opt, &fc_in_weight},
      {&fc_in_bias_opt, &fc_in_bias},
      {&fc_out_weight_opt, &fc_out_weight},
      {&fc_out_bias_opt, &fc_out_bias},
      {&sin_opt, &sin},
      {&cos_opt, &cos},
      {&attention_mask_opt, &attention_mask},
      {&position_ids_opt, &position_ids},
      {&key_cache_opt, &key_cache},
      {&value_cache_opt, &value_cache},
      {&out_opt, &out},
      {&new_key_cache_opt, &new_key_cache},
      {&new_value_cache_opt, &new_value_cache},
      {&ln_out_opt, &ln_out}};
  for (const auto& [opt, buf] : args) t_.push_back(OptionalInput(*opt, *buf));
  t_.resize(kSlots);
  t_[kQkv] = OptionalInput(qkv_opt, qkv);
  t_[kAttnOut] = OptionalInput(attn_out_opt, attn_out);
  t_[kMlpHidden] = OptionalInput(mlp_hidden_opt, mlp_hidden);
}

long GPTJKernel::B() const {
  return t_[kHidden].shape().sizes()[0];
}
long GPTJKernel::T() const {
  return config_.decode ? 1 : t_[kHidden].shape().sizes()[1];
}
long GPTJKernel::P() const {
  return t_[kPastKey].defined() ? t_[kPastKey].shape().sizes()[2] : 0;
}
long GPTJKernel::Inner() const {
  return t_[kFcInWeight].shape().sizes()[0];
}

bool GPTJKernel::Verify() const {
  const std::string op = name();
  const Config& c = config_;
  CheckGiven(op, "hidden_states", t_[kHidden]);
  CheckRank(op, "hidden_states", t_[kHidden], c.decode ? 2 : 3, c.decode ? 2 : 3);
  CheckFloating(op, "hidden_states", t_[kHidden]);
  const DataType dt = t_[kHidden].dtype();
  const long E = t_[kHidden].shape().sizes().back();
  if (c.heads <= 0 || c.head_dim <= 0 || c.head_dim % 2 != 0 ||
      static_cast<long>(c.heads) * c.head_dim != E || c.rotary_dim < 0 || c.rotary_dim % 2 != 0 ||
      c.rotary_dim > c.head_dim) {
    throw std::runtime_error(StrCat(op, ": num_heads ", c.heads, " x head_dim ", c.head_dim,
                                    " (even) must equal the hidden size ", E, ", rotary_dim ",
                                    c.rotary_dim, " even and at most head_dim"));
  }
  CheckGiven(op, "fc_in_weight", t_[kFcInWeight]);
  CheckRank(op, "fc_in_weight", t_[kFcInWeight], 2, 2);
  const long I = Inner(), b = B(), t = T(), H = c.heads, D = c.head_dim;
  CheckShaped(op, "ln_weight", t_[kLnWeight], {E}, dt);
  CheckShaped(op, "ln_bias", t_[kLnBias], {E}, dt);
  for (Slot s : {kQWeight, kKWeight, kVWeight, kOutProj}) {
    CheckShaped(op, "projection weight", t_[s], {E, E}, dt);
  }
  CheckShaped(op, "fc_in_weight", t_[kFcInWeight], {I, E}, dt);
  CheckShaped(op, "fc_in_bias", t_[kFcInBias], {I}, dt);
  CheckShaped(op, "fc_out_weight", t_[kFcOutWeight], {E, I}, dt);
  CheckShaped(op, "fc_out_bias", t_[kFcOutBias], {E}, dt);
  CheckGiven(op, "sin", t_[kSin]);
  CheckRank(op, "sin", t_[kSin], 2, 2);
  const long max_pos = t_[kSin].shape().sizes()[0];
  CheckShaped(op, "sin", t_[kSin], {max_pos, std::max(c.rotary_dim / 2, 1)}, dt);
  CheckShaped(op, "cos", t_[kCos], {max_pos, std::max(c.rotary_dim / 2, 1)}, dt);
  CheckGiven(op, "position_ids", t_[kPositions]);
  CheckIndexType(op, "position_ids", t_[kPositions]);
  if (Count(t_[kPositions].shape().sizes()) != b * t) {
    throw std::runtime_error(StrCat(op, ": position_ids ", Shape(t_[kPositions].shape().sizes()),
                                    " must hold ", b, " x ", t, " positions"));
  }
  if (c.decode) CheckGiven(op, "key_cache", t_[kPastKey]);
  const long p = P();
  if (t_[kPastKey].defined() || t_[kPastValue].defined()) {
    CheckShaped(op, c.decode ? "key_cache" : "past_key", t_[kPastKey], {b, H, p, D}, dt);
    CheckShaped(op, c.decode ? "value_cache" : "past_value", t_[kPastValue], {b, H, p, D}, dt);
  }
  const std::vector<long> rows = c.decode ? std::vector<long>{b, E} : std::vector<long>{b, t, E};
  CheckShaped(op, "out", t_[kOut], rows, dt);
  CheckShaped(op, "ln_out", t_[kLnOut], rows, dt);
  CheckShaped(op, "attn_out", t_[kAttnOut], rows, dt);
  CheckShaped(op, "present_key", t_[kPresentKey], {b, H, p + t, D}, dt);
  CheckShaped(op, "present_value", t_[kPresentValue], {b, H, p + t, D}, dt);
  CheckShaped(op, "mlp_hidden", t_[kMlpHidden],
              c.decode ? std::vector<long>{b, I} : std::vector<long>{b, t, I}, dt);
  if (c.decode) {
    CheckShaped(op, "qkv", t_[kQkv], {b, 3 * E}, dt);
  } else {
    for (Slot s : {kQuery, kKey, kValue})
      CheckShaped(op, "query/key/value", t_[s], {b, H, t, D}, dt);
    CheckShaped(op, "mlp_out", t_[kMlpOut], rows, dt);
    if (t_[kScores].defined()) CheckShaped(op, "attn_scores", t_[kScores], {b, H, t, p + t}, dt);
  }
  if (t_[kMask].defined()) {
    MaskKind(op, t_[kMask]);
    ExpandMask(op, t_[kMask], {b, H, t, p + t});
  }
  for (const Tensor& x : t_) {
    if (x.defined() && !x.is_contiguous()) {
      throw std::runtime_error(StrCat(op, ": tensors must be contiguous, got ",
                                      Shape(x.shape().sizes()), " with strides ",
                                      Shape(x.shape().strides())));
    }
  }
  return true;
}

template <typename K, typename... Args>
void GPTJKernel::AddPart(const std::shared_ptr<SessionImpl>& session, Args&&... args) {
  auto part = std::make_shared<K>(std::forward<Args>(args)...);
  part->Verify();
  part->Compile(session);
  AppendUnits(*part);
  parts_.push_back(part);
}

Tensor GPTJKernel::Scratch(const std::shared_ptr<SessionImpl>& session,
                           const std::vector<long>& sizes, DataType dtype) {
  Tensor t = ScratchTensor(session, sizes, dtype);
  keep_.push_back(t);
  return t;
}

void GPTJKernel::RotationViews(Tensor* qd, Tensor* kd, Tensor* vd) const {
  if (!config_.decode) {
    *qd = t_[kQuery], *kd = t_[kKey], *vd = t_[kValue];
    return;
  }
  const long b = B(), H = config_.heads, D = config_.head_dim, E = H * D;
  const Tensor& qkv = t_[kQkv];
  const long item = static_cast<long>(TypeTraitsHelper::GetSize(qkv.dtype()));
  const std::vector<long> sizes{b, H, 1, D}, strides{3 * E, D, D, 1};
  *qd = qkv.AsStrided(sizes, strides, qkv.storage_offset());
  *kd = qkv.AsStrided(sizes, strides, qkv.storage_offset() + E * item);
  *vd = qkv.AsStrided(sizes, strides, qkv.storage_offset() + 2 * E * item);
}

void GPTJKernel::CopyPast(const std::shared_ptr<SessionImpl>& session) {
  const long b = B(), p = P(), H = config_.heads, D = config_.head_dim;
  if (p == 0) return;
  BuildOption options;
  options.AddDefinition("DTYPE", GetDataTypeCode(t_[kHidden].dtype()));
  MakeSubKernel(session, "GPTJ::rope", {"common.h", "random.h", "attention.h", "gptj_rope.cl"},
                options, "gptj_past")
      ->SetArgs(*FoldView(t_[kPastKey]), *FoldView(t_[kPastValue]), *FoldView(t_[kPresentKey]),
                *FoldView(t_[kPresentValue]), static_cast<int>(p), static_cast<int>(D))
      .SetGlobal({static_cast<size_t>(D), static_cast<size_t>(H * p), static_cast<size_t>(b)});
}

Tensor GPTJKernel::Attend(const std::shared_ptr<SessionImpl>& session, const Tensor& qd) {
  const long b = B(), t = T(), H = config_.heads, D = config_.head_dim, E = H * D;
  Tensor ctx = Scratch(session, {b, t, E}, t_[kHidden].dtype());
  Tensor ctx_heads = ctx.AsStrided({b, H, t, D}, {t * E, D, E, 1}, 0);
  Tensor lse = Scratch(session, {b, H, t}, kFloat);
  ScaledDotProductAttentionOption attn;
  attn.is_causal = config_.causal && !config_.decode;
  attn.scale = config_.scale;
  AddPart<ScaledDotProductAttentionKernel>(session, attn, qd, t_[kPresentKey], t_[kPresentValue],
                                           t_[kMask], ctx_heads, lse, t_[kScores],
                                           static_cast<int>(P()));
  return ctx;
}

void GPTJKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const Config& c = config_;
  const DataType dt = t_[kHidden].dtype();
  const long b = B(), t = T(), H = c.heads, D = c.head_dim, E = H * D, I = Inner();
  if (b * t == 0) return;
  if (session->dev_supports_extension(kTensorCoreExtension)) {
    CompileTensorCore(session);
    return;
  }
  const long rows = b * t;
  auto mat = [&](const Tensor& x, long r, long cols) {
    return Tensor(TensorOption{Shape({r, cols}), dt}, x.storage(), x.storage_offset());
  };
  // Layer norm.
  LayerNormOption ln{{E}, c.eps};
  AddPart<LayerNormKernel>(session, ln, t_[kHidden].option(), t_[kHidden].storage(),
                           t_[kLnWeight].option(), t_[kLnWeight].storage(), t_[kLnBias].option(),
                           t_[kLnBias].storage(), t_[kLnOut].option(), t_[kLnOut].storage());
  // Projections.
  MatMulOption nt;
  nt.transpose_mat2 = true;
  const Tensor ln_out = mat(t_[kLnOut], rows, E);
  Tensor proj[3];
  const Slot weights[3] = {kQWeight, kKWeight, kVWeight};
  for (int i = 0; i < 3; ++i) {
    proj[i] = Scratch(session, {rows, E}, dt);
    AddPart<MatMulKernel>(session, nt, ln_out.option(), ln_out.storage(), t_[weights[i]].option(),
                          t_[weights[i]].storage(), proj[i].option(), proj[i].storage());
  }
  // Rotary embedding into the query/key/value views and the present cache.
  Tensor qd, kd, vd;
  RotationViews(&qd, &kd, &vd);
  CopyPast(session);
  BuildOption options;
  options.AddDefinition("DTYPE", GetDataTypeCode(dt));
  const long max_pos = t_[kSin].shape().sizes()[0];
  MakeSubKernel(session, "GPTJ::rope", {"common.h", "random.h", "attention.h", "gptj_rope.cl"},
                options, "gptj_rope")
      ->SetArgs(proj[0].storage(), proj[1].storage(), proj[2].storage(), t_[kSin].storage(),
                t_[kCos].storage(), static_cast<int>(max_pos), c.rotary_dim / 2,
                t_[kPositions].storage(), t_[kPositions].dtype() == kInt64 ? 1 : 0, *FoldView(qd),
                *FoldView(kd), *FoldView(vd), *FoldView(t_[kPresentKey]),
                *FoldView(t_[kPresentValue]), static_cast<int>(P()), static_cast<int>(t),
                static_cast<int>(H), static_cast<int>(D))
      .SetGlobal({static_cast<size_t>(D / 2), static_cast<size_t>(t * H), static_cast<size_t>(b)});
  // Attention into the merged-head layout [B, T, H, D].
  const Tensor ctx = Attend(session, qd);
  // Output projection and the MLP.
  const Tensor ctx2 = mat(ctx, rows, E), attn_out = mat(t_[kAttnOut], rows, E);
  Buffer attn_out_buf = attn_out.storage();
  AddPart<MatMulKernel>(session, nt, ctx2.option(), ctx2.storage(), t_[kOutProj].option(),
                        t_[kOutProj].storage(), attn_out.option(), attn_out_buf);
  const Tensor hidden = mat(t_[kMlpHidden], rows, I);
  Buffer hidden_buf = hidden.storage();
  AddPart<GemmKernel>(session, nt, ln_out.option(), ln_out.storage(), t_[kFcInWeight].option(),
                      t_[kFcInWeight].storage(), t_[kFcInBias].option(), t_[kFcInBias].storage(),
                      hidden.option(), hidden_buf);
  ActivationOption gelu;
  gelu.op_type = kGeluApproximateTanh;
  AddPart<ActivationKernel>(session, gelu, hidden, hidden);
  const Tensor mlp_out = c.decode ? Scratch(session, {rows, E}, dt) : mat(t_[kMlpOut], rows, E);
  Buffer mlp_out_buf = mlp_out.storage();
  AddPart<GemmKernel>(session, nt, hidden.option(), hidden.storage(), t_[kFcOutWeight].option(),
                      t_[kFcOutWeight].storage(), t_[kFcOutBias].option(), t_[kFcOutBias].storage(),
                      mlp_out.option(), mlp_out_buf);
  // Residual: out = hidden_states + attn_out + mlp_out.
  const Tensor out = mat(t_[kOut], rows, E), in = mat(t_[kHidden], rows, E);
  BinaryOption add;
  AddPart<BinaryKernel>(session, add, in, attn_out, out);
  AddPart<BinaryKernel>(session, add, out, mlp_out, out);
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<GPTJKernel, const GPTJBlockOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&, const TensorOption&, Buffer&, const TensorOption&,
                 Buffer&, const TensorOption&, Buffer&, const TensorOption&, Buffer&,
                 const TensorOption&, Buffer&, const TensorOption&, Buffer&, const TensorOption&,
                 Buffer&, const TensorOption&, Buffer&, const TensorOption&, Buffer&,
                 const TensorOption&, Buffer&>("GPTJBlock");
  ClModule::singleton()
      .AddKernel<GPTJKernel, const GPTJDecodeOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&, const TensorOption&, Buffer&, const TensorOption&,
                 Buffer&, const TensorOption&, Buffer&, const TensorOption&, Buffer&,
                 const TensorOption&, Buffer&, const TensorOption&, Buffer&>("GPTJDecode");
};

}  // namespace cl
}  // namespace nerva
