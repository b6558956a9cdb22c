#pragma once

// Decode attention over a paged key/value cache on any OpenCL device
// ("PagedAttentionV1", "PagedAttentionV2"; program "paged_attention.cl"), as
// vLLM's paged_attention_v1/v2 with the cache blocks laid out per head:
//   query        [num_seqs, num_heads, head_size]            float or half
//   key_cache    [num_blocks, num_kv_heads, block_size, head_size]  (query type)
//   value_cache  [num_blocks, num_kv_heads, block_size, head_size]  (query type)
//   block_tables [num_seqs, max_blocks_per_seq]              int32 or int64
//   seq_lens     [num_seqs]                                  int32 or int64
//   out          [num_seqs, num_heads, head_size]            query type
// num_heads is a multiple of num_kv_heads (head h reads kv head
// h / (num_heads / num_kv_heads)). The score is scale * q . k. Caches, tables
// and lengths are contiguous; query and out may be strided.
// Device data the host cannot see is bounded: a length is clamped to
// [0, min(max_seq_len, max_blocks_per_seq * block_size)], a block id outside
// [0, num_blocks) drops its tokens, and a sequence without tokens gets zeros.
// V1 ("one pass per sequence"): logits [num_seqs, num_heads, max_seq_len]
// float (may be left out) receives the scores of the tokens.
// V2 splits each sequence into partitions of partition_size tokens, reduced at
// the end; with P = ceil(max_seq_len / partition_size): exp_sums and
// max_logits [num_seqs, num_heads, P] float, tmp_out [num_seqs, num_heads, P,
// head_size] float (each partition's normalised output).

#include <memory>
#include <vector>

#include "nerva/kernel/transformers.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

class PagedAttentionKernel : public KernelImpl {
 public:
  PagedAttentionKernel(const PagedAttentionV1Option& option, const TensorOption& query_opt,
                       const Buffer& query, const TensorOption& key_cache_opt,
                       const Buffer& key_cache, const TensorOption& value_cache_opt,
                       const Buffer& value_cache, const TensorOption& block_tables_opt,
                       const Buffer& block_tables, const TensorOption& seq_lens_opt,
                       const Buffer& seq_lens, const TensorOption& out_opt, Buffer& out,
                       const TensorOption& logits_opt, Buffer& logits);
  PagedAttentionKernel(const PagedAttentionV2Option& option, const TensorOption& query_opt,
                       const Buffer& query, const TensorOption& key_cache_opt,
                       const Buffer& key_cache, const TensorOption& value_cache_opt,
                       const Buffer& value_cache, const TensorOption& block_tables_opt,
                       const Buffer& block_tables, const TensorOption& seq_lens_opt,
                       const Buffer& seq_lens, const TensorOption& out_opt, Buffer& out,
                       const TensorOption& exp_sums_opt, Buffer& exp_sums,
                       const TensorOption& max_logits_opt, Buffer& max_logits,
                       const TensorOption& tmp_out_opt, Buffer& tmp_out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  bool v2() const { return partition_size_ > 0; }
  long Partitions() const;

  int num_kv_heads_, block_size_, max_seq_len_, partition_size_;
  float scale_;
  Tensor query_, key_cache_, value_cache_, block_tables_, seq_lens_, out_;
  Tensor logits_, exp_sums_, max_logits_, tmp_out_;
  std::vector<Tensor> keep_;
};

}  // namespace cl
}  // namespace nerva
