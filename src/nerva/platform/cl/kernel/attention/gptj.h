#pragma once

// A GPT-J transformer block on any OpenCL device ("GPTJBlock", "GPTJDecode"),
// composed of nerva's own kernels run in order as one kernel:
//   ln_out = LayerNorm(hidden_states; ln_weight, ln_bias, layer_norm_eps)
//   q, k, v = ln_out @ W^T (q_weight, k_weight, v_weight, no bias), split into
//             num_heads heads of head_dim; the leading rotary_dim dims of each
//             q and k head rotate as GPT-J's rotate_every_two with sin/cos
//             rows at position_ids ("gptj_rope.cl")
//   present key/value = past rows, then the new rows
//   attention: softmax(scale q k^T + attention_mask) v over the present rows,
//             causal with the diagonal at the last key (ScaledDotProductAttention)
//   attn_out = merged heads @ out_proj_weight^T
//   mlp_hidden = gelu_tanh(ln_out @ fc_in_weight^T + fc_in_bias)   (MatMul, Activation)
//   mlp_out = mlp_hidden @ fc_out_weight^T + fc_out_bias
//   out = hidden_states + attn_out + mlp_out                         (Binary)
// E = num_heads * head_dim, I the inner size; rotary_dim even, <= head_dim.
// Every tensor is contiguous, float or half alike (position_ids int32/int64):
//   ln_weight, ln_bias [E]; q/k/v/out_proj weight [E, E]; fc_in_weight [I, E];
//   fc_in_bias [I]; fc_out_weight [E, I]; fc_out_bias [E];
//   sin, cos [max_positions, rotary_dim / 2] (position ids are clamped to it);
//   attention_mask (may be left out): additive, broadcasting to [B, H, T, P + T].
// "GPTJBlock", a prompt of T tokens after P past ones (is_causal as the option):
//   hidden_states [B, T, E], position_ids [B, T], past_key / past_value
//   [B, H, P, D] (may be left out: P = 0); outputs out [B, T, E], present_key /
//   present_value [B, H, P + T, D], ln_out [B, T, E], query / key / value
//   [B, H, T, D] (after the rotation), attn_scores [B, H, T, P + T] (the
//   probabilities; may be left out), attn_out, mlp_out [B, T, E], mlp_hidden [B, T, I].
// "GPTJDecode", one token per sequence: hidden_states [B, E], position_ids
//   [B] or [B, 1], key_cache / value_cache [B, H, P, D]; outputs out [B, E],
//   new_key_cache / new_value_cache [B, H, P + 1, D], ln_out [B, E], qkv
//   [B, 3 E] (q, k, v after the rotation, heads in order), attn_out [B, E],
//   mlp_hidden [B, I].

#include <memory>
#include <vector>

#include "nerva/kernel/transformers.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

class GPTJKernel : public KernelImpl {
 public:
  GPTJKernel(const GPTJBlockOption& option, const TensorOption& hidden_states_opt,
             const Buffer& hidden_states, const TensorOption& ln_weight_opt,
             const Buffer& ln_weight, const TensorOption& ln_bias_opt, const Buffer& ln_bias,
             const TensorOption& q_weight_opt, const Buffer& q_weight,
             const TensorOption& k_weight_opt, const Buffer& k_weight,
             const TensorOption& v_weight_opt, const Buffer& v_weight,
             const TensorOption& out_proj_weight_opt, const Buffer& out_proj_weight,
             const TensorOption& fc_in_weight_opt, const Buffer& fc_in_weight,
             const TensorOption& fc_in_bias_opt, const Buffer& fc_in_bias,
             const TensorOption& fc_out_weight_opt, const Buffer& fc_out_weight,
             const TensorOption& fc_out_bias_opt, const Buffer& fc_out_bias,
             const TensorOption& sin_opt, const Buffer& sin, const TensorOption& cos_opt,
             const Buffer& cos, const TensorOption& attention_mask_opt,
             const Buffer& attention_mask, const TensorOption& position_ids_opt,
             const Buffer& position_ids, const TensorOption& past_key_opt, const Buffer& past_key,
             const TensorOption& past_value_opt, const Buffer& past_value,
             const TensorOption& out_opt, Buffer& out, const TensorOption& present_key_opt,
             Buffer& present_key, const TensorOption& present_value_opt, Buffer& present_value,
             const TensorOption& ln_out_opt, Buffer& ln_out, const TensorOption& query_opt,
             Buffer& query, const TensorOption& key_opt, Buffer& key, const TensorOption& value_opt,
             Buffer& value, const TensorOption& attn_scores_opt, Buffer& attn_scores,
             const TensorOption& attn_out_opt, Buffer& attn_out, const TensorOption& mlp_hidden_opt,
             Buffer& mlp_hidden, const TensorOption& mlp_out_opt, Buffer& mlp_out);
  GPTJKernel(const GPTJDecodeOption& option, const TensorOption& hidden_states_opt,
             const Buffer& hidden_states, const TensorOption& ln_weight_opt,
             const Buffer& ln_weight, const TensorOption& ln_bias_opt, const Buffer& ln_bias,
             const TensorOption& q_weight_opt, const Buffer& q_weight,
             const TensorOption& k_weight_opt, const Buffer& k_weight,
             const TensorOption& v_weight_opt, const Buffer& v_weight,
             const TensorOption& out_proj_weight_opt, const Buffer& out_proj_weight,
             const TensorOption& fc_in_weight_opt, const Buffer& fc_in_weight,
             const TensorOption& fc_in_bias_opt, const Buffer& fc_in_bias,
             const TensorOption& fc_out_weight_opt, const Buffer& fc_out_weight,
             const TensorOption& fc_out_bias_opt, const Buffer& fc_out_bias,
             const TensorOption& sin_opt, const Buffer& sin, const TensorOption& cos_opt,
             const Buffer& cos, const TensorOption& attention_mask_opt,
             const Buffer& attention_mask, const TensorOption& position_ids_opt,
             const Buffer& position_ids, const TensorOption& key_cache_opt, const Buffer& key_cache,
             const TensorOption& value_cache_opt, const Buffer& value_cache,
             const TensorOption& out_opt, Buffer& out, const TensorOption& new_key_cache_opt,
             Buffer& new_key_cache, const TensorOption& new_value_cache_opt,
             Buffer& new_value_cache, const TensorOption& ln_out_opt, Buffer& ln_out,
             const TensorOption& qkv_opt, Buffer& qkv, const TensorOption& attn_out_opt,
             Buffer& attn_out, const TensorOption& mlp_hidden_opt, Buffer& mlp_hidden);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  // The block's settings and tensors; decode fills the block's slots.
  struct Config {
    int heads = 0, head_dim = 0, rotary_dim = 0;
    float eps = 1e-5f, scale = 0.0f;
    bool causal = true, decode = false;
  };
  enum Slot {
    kHidden,
    kLnWeight,
    kLnBias,
    kQWeight,
    kKWeight,
    kVWeight,
    kOutProj,
    kFcInWeight,
    kFcInBias,
    kFcOutWeight,
    kFcOutBias,
    kSin,
    kCos,
    kMask,
    kPositions,
    kPastKey,
    kPastValue,
    kOut,
    kPresentKey,
    kPresentValue,
    kLnOut,
    kQuery,
    kKey,
    kValue,
    kScores,
    kAttnOut,
    kMlpHidden,
    kMlpOut,
    kQkv,
    kSlots
  };
  long B() const;
  long T() const;
  long P() const;
  long Inner() const;
  // Verifies, compiles and appends a part built from `args`.
  template <typename K, typename... Args>
  void AddPart(const std::shared_ptr<SessionImpl>& session, Args&&... args);
  // The query, key and value views the rotation writes: the outputs of the
  // block, or slices of the decode step's qkv rows.
  void RotationViews(Tensor* qd, Tensor* kd, Tensor* vd) const;
  // Copies the past rows into the present key/value (no unit when P = 0).
  void CopyPast(const std::shared_ptr<SessionImpl>& session);
  // Attention of the rotated views over the present rows into [B, T, E].
  Tensor Attend(const std::shared_ptr<SessionImpl>& session, const Tensor& qd);
  // The block on the tensor unit ("tensorcore/gptj_*.cl", tc_gptj.cc).
  void CompileTensorCore(const std::shared_ptr<SessionImpl>& session);
  Tensor Scratch(const std::shared_ptr<SessionImpl>& session, const std::vector<long>& sizes,
                 DataType dtype);

  Config config_;
  std::vector<Tensor> t_;
  std::vector<std::shared_ptr<KernelImpl>> parts_;
  std::vector<Tensor> keep_;
};

}  // namespace cl
}  // namespace nerva
