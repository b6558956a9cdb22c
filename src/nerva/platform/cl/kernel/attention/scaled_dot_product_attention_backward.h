#pragma once

// Gradient of torch.nn.functional.scaled_dot_product_attention on any OpenCL
// device ("ScaledDotProductAttentionBackward", program
// "scaled_dot_product_attention_backward.cl"), with the forward's option.
//
// grad_output [..., Hq, L, Ev], query, key, value as in the forward. The
// fifth input ("attn_weights") is either
//   - the forward's probabilities [..., Hq, L, S] in the query's type: any
//     mask the forward used is in them; dropout_p must then be 0, or
//   - the forward's logsumexp [..., Hq, L] (float): the probabilities are
//     recomputed key by key from the scores, which holds for a forward without
//     attn_mask (is_causal allowed). Dropout is redrawn from the option's seed,
//     so dropout_p > 0 needs use_seed (the forward's seed).
// Outputs: grad_query, grad_key, grad_value (the inputs' shapes, the query's
// type; grouped heads sum over their query heads). Optional (may be left out):
// grad_attn_mask, the gradient of an additive mask of that shape (it must
// broadcast to [..., Hq, L, S]; float or half): the score gradients summed
// over the broadcast dimensions; grad_attn_weights [..., Hq, L, S] (query
// type): dO . V, the gradient of the probabilities after dropout;
// grad_scores [..., Hq, L, S] (float): the gradient of the scaled, masked
// scores; delta [..., Hq, L] (float): sum_j P dP per query row.

#include <memory>
#include <vector>

#include "nerva/kernel/transformers.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

class ScaledDotProductAttentionBackwardKernel : public KernelImpl {
 public:
  ScaledDotProductAttentionBackwardKernel(
      const ScaledDotProductAttentionBackwardOption& option, const TensorOption& grad_output_opt,
      const Buffer& grad_output, const TensorOption& query_opt, const Buffer& query,
      const TensorOption& key_opt, const Buffer& key, const TensorOption& value_opt,
      const Buffer& value, const TensorOption& attn_weights_opt, const Buffer& attn_weights,
      const TensorOption& grad_query_opt, Buffer& grad_query, const TensorOption& grad_key_opt,
      Buffer& grad_key, const TensorOption& grad_value_opt, Buffer& grad_value,
      const TensorOption& grad_attn_mask_opt, Buffer& grad_attn_mask,
      const TensorOption& grad_attn_weights_opt, Buffer& grad_attn_weights,
      const TensorOption& grad_scores_opt, Buffer& grad_scores, const TensorOption& delta_opt,
      Buffer& delta);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  bool FromLogsumexp() const;

  ScaledDotProductAttentionBackwardOption option_;
  Tensor grad_output_, query_, key_, value_, saved_;
  Tensor grad_query_, grad_key_, grad_value_, grad_mask_, grad_weights_, grad_scores_, delta_;
  std::vector<Tensor> keep_;
};

}  // namespace cl
}  // namespace nerva
