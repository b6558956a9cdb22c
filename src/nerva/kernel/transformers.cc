#include "nerva/kernel/transformers.h"

namespace nerva {

Kernel GPTJ::Create(
    const std::shared_ptr<IQueueImpl>& queue, const GPTJBlockOption& option,
    const TensorOption& hidden_states_opt, const Buffer& hidden_states,
    const TensorOption& ln_weight_opt, const Buffer& ln_weight, const TensorOption& ln_bias_opt,
    const Buffer& ln_bias, const TensorOption& q_weight_opt, const Buffer& q_weight,
    const TensorOption& k_weight_opt, const Buffer& k_weight, const TensorOption& v_weight_opt,
    const Buffer& v_weight, const TensorOption& out_proj_weight_opt, const Buffer& out_proj_weight,
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
    Buffer& mlp_out) {
  return queue->CreateKernel(
      "GPTJBlock", option, hidden_states_opt, hidden_states, ln_weight_opt, ln_weight, ln_bias_opt,
      ln_bias, q_weight_opt, q_weight, k_weight_opt, k_weight, v_weight_opt, v_weight,
      out_proj_weight_opt, out_proj_weight, fc_in_weight_opt, fc_in_weight, fc_in_bias_opt,
      fc_in_bias, fc_out_weight_opt, fc_out_weight, fc_out_bias_opt, fc_out_bias, sin_opt, sin,
      cos_opt, cos, attention_mask_opt, attention_mask, position_ids_opt, position_ids,
      past_key_opt, past_key, past_value_opt, past_value, out_opt, out, present_key_opt,
      present_key, present_value_opt, present_value, ln_out_opt, ln_out, query_opt, query, key_opt,
      key, value_opt, value, attn_scores_opt, attn_scores, attn_out_opt, attn_out, mlp_hidden_opt,
      mlp_hidden, mlp_out_opt, mlp_out);
}

Kernel GPTJ::Create(const std::shared_ptr<IQueueImpl>& queue, const GPTJDecodeOption& option,
                    const TensorOption& hidden_states_opt, const Buffer& hidden_states,
                    const TensorOption& ln_weight_opt, const Buffer& ln_weight,
                    const TensorOption& ln_bias_opt, const Buffer& ln_bias,
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
                    const Buffer& position_ids, const TensorOption& key_cache_opt,
                    const Buffer& key_cache, const TensorOption& value_cache_opt,
                    const Buffer& value_cache, const TensorOption& out_opt, Buffer& out,
                    const TensorOption& new_key_cache_opt, Buffer& new_key_cache,
                    const TensorOption& new_value_cache_opt, Buffer& new_value_cache,
                    const TensorOption& ln_out_opt, Buffer& ln_out, const TensorOption& qkv_opt,
                    Buffer& qkv, const TensorOption& attn_out_opt, Buffer& attn_out,
                    const TensorOption& mlp_hidden_opt, Buffer& mlp_hidden) {
  return queue->CreateKernel(
      "GPTJDecode", option, hidden_states_opt, hidden_states, ln_weight_opt, ln_weight, ln_bias_opt,
      ln_bias, q_weight_opt, q_weight, k_weight_opt, k_weight, v_weight_opt, v_weight,
      out_proj_weight_opt, out_proj_weight, fc_in_weight_opt, fc_in_weight, fc_in_bias_opt,
      fc_in_bias, fc_out_weight_opt, fc_out_weight, fc_out_bias_opt, fc_out_bias, sin_opt, sin,
      cos_opt, cos, attention_mask_opt, attention_mask, position_ids_opt, position_ids,
      key_cache_opt, key_cache, value_cache_opt, value_cache, out_opt, out, new_key_cache_opt,
      new_key_cache, new_value_cache_opt, new_value_cache, ln_out_opt, ln_out, qkv_opt, qkv,
      attn_out_opt, attn_out, mlp_hidden_opt, mlp_hidden);
}

Kernel ScaledDotProductAttention::Create(
    const std::shared_ptr<IQueueImpl>& queue, const ScaledDotProductAttentionOption& option,
    const TensorOption& query_opt, const Buffer& query, const TensorOption& key_opt,
    const Buffer& key, const TensorOption& value_opt, const Buffer& value,
    const TensorOption& attn_mask_opt, const Buffer& attn_mask, const TensorOption& out_opt,
    Buffer& out, const TensorOption& logsumexp_opt, Buffer& logsumexp,
    const TensorOption& attn_weights_opt, Buffer& attn_weights) {
  return queue->CreateKernel("ScaledDotProductAttention", option, query_opt, query, key_opt, key,
                             value_opt, value, attn_mask_opt, attn_mask, out_opt, out,
                             logsumexp_opt, logsumexp, attn_weights_opt, attn_weights);
}

Kernel ScaledDotProductAttentionBackward::Create(
    const std::shared_ptr<IQueueImpl>& queue, const ScaledDotProductAttentionBackwardOption& option,
    const TensorOption& grad_output_opt, const Buffer& grad_output, const TensorOption& query_opt,
    const Buffer& query, const TensorOption& key_opt, const Buffer& key,
    const TensorOption& value_opt, const Buffer& value, const TensorOption& attn_weights_opt,
    const Buffer& attn_weights, const TensorOption& grad_query_opt, Buffer& grad_query,
    const TensorOption& grad_key_opt, Buffer& grad_key, const TensorOption& grad_value_opt,
    Buffer& grad_value, const TensorOption& grad_attn_mask_opt, Buffer& grad_attn_mask,
    const TensorOption& grad_attn_weights_opt, Buffer& grad_attn_weights,
    const TensorOption& grad_scores_opt, Buffer& grad_scores, const TensorOption& delta_opt,
    Buffer& delta) {
  return queue->CreateKernel(
      "ScaledDotProductAttentionBackward", option, grad_output_opt, grad_output, query_opt, query,
      key_opt, key, value_opt, value, attn_weights_opt, attn_weights, grad_query_opt, grad_query,
      grad_key_opt, grad_key, grad_value_opt, grad_value, grad_attn_mask_opt, grad_attn_mask,
      grad_attn_weights_opt, grad_attn_weights, grad_scores_opt, grad_scores, delta_opt, delta);
}

Kernel PagedAttentionV1::Create(const std::shared_ptr<IQueueImpl>& queue,
                                const PagedAttentionV1Option& option, const TensorOption& query_opt,
                                const Buffer& query, const TensorOption& key_cache_opt,
                                const Buffer& key_cache, const TensorOption& value_cache_opt,
                                const Buffer& value_cache, const TensorOption& block_tables_opt,
                                const Buffer& block_tables, const TensorOption& seq_lens_opt,
                                const Buffer& seq_lens, const TensorOption& out_opt, Buffer& out,
                                const TensorOption& logits_opt, Buffer& logits) {
  return queue->CreateKernel("PagedAttentionV1", option, query_opt, query, key_cache_opt, key_cache,
                             value_cache_opt, value_cache, block_tables_opt, block_tables,
                             seq_lens_opt, seq_lens, out_opt, out, logits_opt, logits);
}

Kernel PagedAttentionV2::Create(const std::shared_ptr<IQueueImpl>& queue,
                                const PagedAttentionV2Option& option, const TensorOption& query_opt,
                                const Buffer& query, const TensorOption& key_cache_opt,
                                const Buffer& key_cache, const TensorOption& value_cache_opt,
                                const Buffer& value_cache, const TensorOption& block_tables_opt,
                                const Buffer& block_tables, const TensorOption& seq_lens_opt,
                                const Buffer& seq_lens, const TensorOption& out_opt, Buffer& out,
                                const TensorOption& exp_sums_opt, Buffer& exp_sums,
                                const TensorOption& max_logits_opt, Buffer& max_logits,
                                const TensorOption& tmp_out_opt, Buffer& tmp_out) {
  return queue->CreateKernel("PagedAttentionV2", option, query_opt, query, key_cache_opt, key_cache,
                             value_cache_opt, value_cache, block_tables_opt, block_tables,
                             seq_lens_opt, seq_lens, out_opt, out, exp_sums_opt, exp_sums,
                             max_logits_opt, max_logits, tmp_out_opt, tmp_out);
}

}  // namespace nerva
