#pragma once

// torch.nn.functional.scaled_dot_product_attention on any OpenCL device
// ("ScaledDotProductAttention"). CPU devices run the register-blocked
// program "scaled_dot_product_attention_blocked.cl" (keys and values first
// packed into blocks of scratch memory, linear in S); other devices the
// flash program "scaled_dot_product_attention_flash.cl" (register blocks of
// scores and outputs, online softmax across items) for head sizes up to 64
// without attn_weights, else the local-memory tiles of
// "scaled_dot_product_attention.cl".
//
// query [..., Hq, L, E], key [..., Hk, S, E], value [..., Hk, S, Ev]: rank 2 to
// 8, float or half alike, the leading dimensions equal (a rank-2 query is one
// head). Hk == Hq, or with enable_gqa Hq a multiple of Hk (query head h uses
// key/value head h / (Hq / Hk)). Any strides.
// attn_mask (may be left out): bool (true takes part) or an additive float or
// half tensor broadcasting to [..., Hq, L, S]; unused when is_causal, which
// keeps key j for query i when j <= i (the upper-left triangle, as PyTorch).
// scale 0 means 1 / sqrt(E). dropout_p in [0, 1] zeroes probabilities with
// Philox draws of the session's generator (or of `seed` with use_seed) and
// scales the rest by 1 / (1 - p); each decision depends on the probability's
// position and the launch's (seed, offset) alone.
// Outputs: out [..., Hq, L, Ev] in the query's type; logsumexp [..., Hq, L]
// float, always written (-inf for a row no key takes part in, whose output is
// NaN as in PyTorch); attn_weights [..., Hq, L, S] in the query's type, the
// probabilities after dropout, written only when given. Memory stays linear in
// the sequence lengths unless attn_weights is asked for.

#include <memory>
#include <vector>

#include "nerva/kernel/transformers.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

class ScaledDotProductAttentionKernel : public KernelImpl {
 public:
  ScaledDotProductAttentionKernel(const ScaledDotProductAttentionOption& option,
                                  const TensorOption& query_opt, const Buffer& query,
                                  const TensorOption& key_opt, const Buffer& key,
                                  const TensorOption& value_opt, const Buffer& value,
                                  const TensorOption& attn_mask_opt, const Buffer& attn_mask,
                                  const TensorOption& out_opt, Buffer& out,
                                  const TensorOption& logsumexp_opt, Buffer& logsumexp,
                                  const TensorOption& attn_weights_opt, Buffer& attn_weights);
  // For composite kernels: the mask applies together with is_causal, whose
  // diagonal is shifted by `causal_offset` (key j is kept for query i when
  // j <= i + causal_offset; S - L aligns the last query with the last key).
  ScaledDotProductAttentionKernel(const ScaledDotProductAttentionOption& option, Tensor query,
                                  Tensor key, Tensor value, Tensor attn_mask, Tensor out,
                                  Tensor logsumexp, Tensor attn_weights, int causal_offset);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

  // Program choice: -1 by device (the register-blocked program on CPU
  // devices; elsewhere the flash program where it applies, else the
  // local-memory tiles), 0 the tiles, 1 blocked, 2 flash where it applies.
  static void SetBlockedModeForTesting(int mode);

 private:
  ScaledDotProductAttentionOption option_;
  Tensor query_, key_, value_, mask_, out_, lse_, attn_;
  int causal_offset_ = 0;
  bool mask_with_causal_ = false;
  std::vector<Tensor> keep_;  // copies and scratch the units read
};

// Shared by the forward and the backward: the attention sizes of
// query/key/value, checked (std::runtime_error naming `op` and the shapes).
struct AttentionDims {
  std::vector<long> lead;  // leading (batch) dimensions
  long heads = 1, kv_heads = 1, L = 0, S = 0, E = 0, Ev = 0;
  std::vector<long> Sizes(long h, long rows, long cols) const;  // lead + [h, rows, cols]
};
AttentionDims AttentionShapes(const std::string& op, const Tensor& query, const Tensor& key,
                              const Tensor& value, bool enable_gqa);
// The score scale of an option: `scale`, or 1 / sqrt(E) for 0.
float AttentionScale(float scale, long E);
// `tensor` viewed with an extra trailing dimension of size 1.
Tensor WithUnitColumn(const Tensor& tensor);
// `mask` broadcast to `sizes` (zero strides), else std::runtime_error.
Tensor ExpandMask(const std::string& op, const Tensor& mask, const std::vector<long>& sizes);
// The device's mask kind (MASK_BOOL, MASK_FLOAT, MASK_HALF), std::invalid_argument otherwise.
int MaskKind(const std::string& op, const Tensor& mask);

}  // namespace cl
}  // namespace nerva
