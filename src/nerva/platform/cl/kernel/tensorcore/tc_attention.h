#pragma once

// The tensor-core path of the attention kernels, taken when the session's device
// offers cl_nrv_tensorcore and the tiles fit its local memory.
//
// ScaledDotProductAttention: "tensorcore/scaled_dot_product_transpose.cl"
// ("sdpa_pack_tensorcore") first packs the keys of every (batch, kv head) into
// transposed tiles of BK keys and the values into rows, both zero-padded to whole
// tiles in scratch memory linear in S; "tensorcore/scaled_dot_product_attention.cl"
// ("sdpa_forward_tensorcore") then takes BQ query rows per work-group, computes the
// score tile and the probability-times-value tile with tc_matmul and keeps an
// online softmax between them. Semantics, outputs and dropout draws are those of
// the generic program (see scaled_dot_product_attention.h); float and half data,
// any strides. Tiles: BQ = BK = 32, or 16 when 32 does not fit the local memory;
// head sizes whose tiles fit in neither stay on the generic program.

#include <memory>
#include <vector>

#include "nerva/kernel/transformers.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/tensor.h"

namespace nerva {
namespace cl {

// The forward's tensors as the generic kernel holds them: `mask` undefined when
// absent (or unused because of is_causal), `attn` undefined when not asked for.
struct TcSdpaForwardArgs {
  const ScaledDotProductAttentionOption& option;
  const Tensor& query;
  const Tensor& key;
  const Tensor& value;
  const Tensor& mask;
  const Tensor& out;
  const Tensor& lse;
  const Tensor& attn;
  int causal_offset;
};

// ScaledDotProductAttentionBackward from the forward's logsumexp, without the optional
// score-sized outputs (grad_attn_mask, grad_attn_weights, grad_scores; those stay on the
// generic program): "tensorcore/scaled_dot_product_attention_backward_transpose.cl"
// ("sdpa_backward_pack_tensorcore") packs the keys and values into transposed tiles and
// the keys into rows; "tensorcore/scaled_dot_product_attention_backward_split.cl"
// ("sdpa_backward_delta_tensorcore") computes each query row's delta = sum_j P Z dP;
// "tensorcore/scaled_dot_product_attention_backward.cl" ("sdpa_backward_query_tensorcore")
// the query gradient dS K and "tensorcore/scaled_dot_product_attention_backward_kv.cl"
// ("sdpa_backward_kv_tensorcore") the key and value gradients dS^T Q and (P Z)^T dO, each
// product through tc_matmul. Dropout is redrawn as the generic program does.
struct TcSdpaBackwardArgs {
  const ScaledDotProductAttentionOption& option;
  bool from_lse;  // `saved` is the logsumexp (else the probabilities)
  const Tensor& grad_output;
  const Tensor& query;
  const Tensor& key;
  const Tensor& value;
  const Tensor& saved;
  const Tensor& grad_query;
  const Tensor& grad_key;
  const Tensor& grad_value;
  const Tensor& grad_mask;     // must be undefined for this path
  const Tensor& grad_weights;  // must be undefined for this path
  const Tensor& grad_scores;   // must be undefined for this path
  const Tensor& delta;         // may be undefined
};

// Appends the tensor-core units of the backward to `kernel` and returns true, or returns
// false (adding nothing) when the device, the inputs or the outputs asked for do not
// allow it.
bool TcSdpaBackward(KernelImpl& kernel, const std::shared_ptr<SessionImpl>& session,
                    const TcSdpaBackwardArgs& args, std::vector<Tensor>* keep);

// PagedAttentionV1 / V2: "tensorcore/paged_attention_v1.cl" ("paged_attention_v1_tensorcore")
// or "tensorcore/paged_attention_v2.cl" ("paged_attention_v2_tensorcore", built after the
// v1 text whose partition body it shares) takes one (sequence, kv head, partition) per
// work-group with its query heads, and per cache block computes the scores as
// K_block Q^T and the output as P V_block with tc_matmul; V2 then merges the partitions
// with "tensorcore/paged_attention_v2_reduce.cl" ("paged_attention_v2_reduce_tensorcore"),
// their weights times tmp_out through tc_matmul. Semantics, bounds and outputs are those
// of the generic program (see paged_attention.h). The cache block size is a build
// constant.
struct TcPagedArgs {
  int num_kv_heads, block_size, max_seq_len, partition_size;  // partition_size 0 for V1
  float scale;
  const Tensor& query;
  const Tensor& key_cache;
  const Tensor& value_cache;
  const Tensor& block_tables;
  const Tensor& seq_lens;
  const Tensor& out;
  const Tensor& logits;  // V1, may be undefined
  const Tensor& exp_sums;
  const Tensor& max_logits;
  const Tensor& tmp_out;  // V2
};

// Appends the tensor-core units of the forward to `kernel` and returns true, or
// returns false (adding nothing) when the device or the sizes do not allow it.
// Copies and scratch memory the units read are kept in `keep`.
bool TcSdpaForward(KernelImpl& kernel, const std::shared_ptr<SessionImpl>& session,
                   const TcSdpaForwardArgs& args, std::vector<Tensor>* keep);

// Appends the tensor-core units of the paged attention to `kernel` and returns true,
// or returns false (adding nothing) when the device does not offer a tensor unit.
bool TcPagedAttention(KernelImpl& kernel, const std::shared_ptr<SessionImpl>& session,
                      const TcPagedArgs& args, std::vector<Tensor>* keep);

}  // namespace cl
}  // namespace nerva
