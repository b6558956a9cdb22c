#pragma once

// Front-ends of the transformer blocks: fused GPT-J blocks, scaled dot-product attention
// and paged attention.

#include <cstdint>
#include <memory>
#include <vector>

#include "nerva/buffer.h"
#include "nerva/kernel.h"
#include "nerva/queue.h"
#include "nerva/tensor_option.h"

namespace nerva {

// Fused GPT-J block over a whole prompt.
struct GPTJBlockOption {
  int num_heads = 16;            // attention heads
  int head_dim = 256;            // size of one head
  int rotary_dim = 64;           // leading head dimensions that get rotary embeddings
  float layer_norm_eps = 1e-5f;  // epsilon of the block's layer norm
  float scale = 0.0f;            // attention scale; 0: 1 / sqrt(head_dim)
  bool is_causal = true;         // mask future positions
};

// Fused GPT-J block for one new token per sequence.
struct GPTJDecodeOption {
  int num_heads = 16;            // attention heads
  int head_dim = 256;            // size of one head
  int rotary_dim = 64;           // leading head dimensions that get rotary embeddings
  float layer_norm_eps = 1e-5f;  // epsilon of the block's layer norm
  float scale = 0.0f;            // attention scale; 0: 1 / sqrt(head_dim)
};

// torch.nn.functional.scaled_dot_product_attention(dropout_p, is_causal, scale, enable_gqa).
struct ScaledDotProductAttentionOption {
  float dropout_p = 0.0f;   // dropout on the attention probabilities
  bool is_causal = false;   // mask future positions (the mask input is then unused)
  float scale = 0.0f;       // score scale; 0: 1 / sqrt(head size)
  bool enable_gqa = false;  // key/value heads are shared by groups of query heads
  bool use_seed = false;    // dropout draws from `seed` instead of the session's generator
  float seed = 0.0f;        // the seed, truncated to an unsigned integer
};

// Gradient of scaled_dot_product_attention, with the forward's settings.
struct ScaledDotProductAttentionBackwardOption : ScaledDotProductAttentionOption {};

// Decode attention over a paged key/value cache.
struct PagedAttentionV1Option {
  int num_kv_heads = 1;  // key/value heads (query heads are shared among them)
  float scale = 1.0f;    // score scale
  int block_size = 16;   // tokens per cache block
  int max_seq_len = 0;   // longest sequence in the batch
};

// Partitioned decode attention over a paged key/value cache.
struct PagedAttentionV2Option {
  int num_kv_heads = 1;      // key/value heads (query heads are shared among them)
  float scale = 1.0f;        // score scale
  int block_size = 16;       // tokens per cache block
  int max_seq_len = 0;       // longest sequence in the batch
  int partition_size = 512;  // tokens per partition
};

// A whole GPT-J transformer block: layer norm, rotary self-attention and the parallel MLP,
// added to the residual. The trailing outputs are the block's intermediate tensors.
// "GPTJBlock": a prompt of any length (past_key / past_value may be empty).
class GPTJ {
 public:
  static Kernel Create(
      const std::shared_ptr<IQueueImpl>& queue, const GPTJBlockOption& option,
      const TensorOption& hidden_states_opt, const Buffer& hidden_states,
      const TensorOption& ln_weight_opt, const Buffer& ln_weight, const TensorOption& ln_bias_opt,
      const Buffer& ln_bias, const TensorOption& q_weight_opt, const Buffer& q_weight,
      const TensorOption& k_weight_opt, const Buffer& k_weight, const TensorOption& v_weight_opt,
      const Buffer& v_weight, const TensorOption& out_proj_weight_opt,
      const Buffer& out_proj_weight, const TensorOption& fc_in_weight_opt,
      const Buffer& fc_in_weight, const TensorOption& fc_in_bias_opt, const Buffer& fc_in_bias,
      const TensorOption& fc_out_weight_opt, const Buffer& fc_out_weight,
      const TensorOption& fc_out_bias_opt, const Buffer& fc_out_bias, const TensorOption& sin_opt,
      const Buffer& sin, const TensorOption& cos_opt, const Buffer& cos,
      const TensorOption& attention_mask_opt, const Buffer& attention_mask,
      const TensorOption& position_ids_opt, const Buffer& position_ids,
      const TensorOption& past_key_opt, const Buffer& past_key, const TensorOption& past_value_opt,
      const Buffer& past_value, const TensorOption& out_opt, Buffer& out,
      const TensorOption& present_key_opt, Buffer& present_key,
      const TensorOption& present_value_opt, Buffer& present_value, const TensorOption& ln_out_opt,
      Buffer& ln_out, const TensorOption& query_opt, Buffer& query, const TensorOption& key_opt,
      Buffer& key, const TensorOption& value_opt, Buffer& value,
      const TensorOption& attn_scores_opt, Buffer& attn_scores, const TensorOption& attn_out_opt,
      Buffer& attn_out, const TensorOption& mlp_hidden_opt, Buffer& mlp_hidden,
      const TensorOption& mlp_out_opt, Buffer& mlp_out);
  // "GPTJDecode": one new token per sequence against the key and value caches.
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const GPTJDecodeOption& option,
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
                       const TensorOption& mlp_hidden_opt, Buffer& mlp_hidden);
};

// torch.nn.functional.scaled_dot_product_attention; attn_mask may be empty. logsumexp
// (per query row) and attn_weights (the probabilities) are kept for the backward.
class ScaledDotProductAttention {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const ScaledDotProductAttentionOption& option, const TensorOption& query_opt,
                       const Buffer& query, const TensorOption& key_opt, const Buffer& key,
                       const TensorOption& value_opt, const Buffer& value,
                       const TensorOption& attn_mask_opt, const Buffer& attn_mask,
                       const TensorOption& out_opt, Buffer& out, const TensorOption& logsumexp_opt,
                       Buffer& logsumexp, const TensorOption& attn_weights_opt,
                       Buffer& attn_weights);
};

// Gradient of ScaledDotProductAttention from the saved probabilities. grad_attn_mask may be
// empty; grad_attn_weights, grad_scores and delta are scratch.
class ScaledDotProductAttentionBackward {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const ScaledDotProductAttentionBackwardOption& option,
                       const TensorOption& grad_output_opt, const Buffer& grad_output,
                       const TensorOption& query_opt, const Buffer& query,
                       const TensorOption& key_opt, const Buffer& key,
                       const TensorOption& value_opt, const Buffer& value,
                       const TensorOption& attn_weights_opt, const Buffer& attn_weights,
                       const TensorOption& grad_query_opt, Buffer& grad_query,
                       const TensorOption& grad_key_opt, Buffer& grad_key,
                       const TensorOption& grad_value_opt, Buffer& grad_value,
                       const TensorOption& grad_attn_mask_opt, Buffer& grad_attn_mask,
                       const TensorOption& grad_attn_weights_opt, Buffer& grad_attn_weights,
                       const TensorOption& grad_scores_opt, Buffer& grad_scores,
                       const TensorOption& delta_opt, Buffer& delta);
};

// Decode attention over a paged key/value cache, one pass per sequence; logits is scratch.
class PagedAttentionV1 {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const PagedAttentionV1Option& option, const TensorOption& query_opt,
                       const Buffer& query, const TensorOption& key_cache_opt,
                       const Buffer& key_cache, const TensorOption& value_cache_opt,
                       const Buffer& value_cache, const TensorOption& block_tables_opt,
                       const Buffer& block_tables, const TensorOption& seq_lens_opt,
                       const Buffer& seq_lens, const TensorOption& out_opt, Buffer& out,
                       const TensorOption& logits_opt, Buffer& logits);
};

// Decode attention over a paged key/value cache, split into partitions that are reduced at
// the end; exp_sums, max_logits and tmp_out hold the per-partition results.
class PagedAttentionV2 {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue,
                       const PagedAttentionV2Option& option, const TensorOption& query_opt,
                       const Buffer& query, const TensorOption& key_cache_opt,
                       const Buffer& key_cache, const TensorOption& value_cache_opt,
                       const Buffer& value_cache, const TensorOption& block_tables_opt,
                       const Buffer& block_tables, const TensorOption& seq_lens_opt,
                       const Buffer& seq_lens, const TensorOption& out_opt, Buffer& out,
                       const TensorOption& exp_sums_opt, Buffer& exp_sums,
                       const TensorOption& max_logits_opt, Buffer& max_logits,
                       const TensorOption& tmp_out_opt, Buffer& tmp_out);
};

}  // namespace nerva
