#include "nerva/platform/cl/kernel/attention/paged_attention.h"

#include <algorithm>
#include <stdexcept>

#include "nerva/platform/cl/kernel/attention/attention_util.h"
#include "nerva/platform/cl/kernel/norm/norm_util.h"
#include "nerva/platform/cl/kernel/tensorcore/tc_attention.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {
constexpr long kMaxHeadSize = 512;

// Items per group: few on CPU devices, whose groups run on one thread each
// (the groups themselves feed the cores); up to 64 elsewhere, with the merge
// buffer in at most 16 KiB of local memory.
int GroupSize(const SessionImpl& session, long group_heads, long size) {
  const bool cpu = session.host_cpu();
  int wg = cpu ? 2 : 64;
  while (wg > 1 && (static_cast<size_t>(wg) > session.max_work_group_size() ||
                    wg * group_heads * (size + 2) * 4 > 16384)) {
    wg /= 2;
  }
  return wg;
}

// The widest vector (16, 8, 4, 2 or 1 lanes) that divides the head size.
int VectorWidth(long size) {
  int w = 16;
  while (size % w != 0) w /= 2;
  return w;
}
}  // namespace

PagedAttentionKernel::PagedAttentionKernel(
    const PagedAttentionV1Option& option, const TensorOption& query_opt, const Buffer& query,
    const TensorOption& key_cache_opt, const Buffer& key_cache, const TensorOption& value_cache_opt,
    const Buffer& value_cache, const TensorOption& block_tables_opt, const Buffer& block_tables,
    const TensorOption& seq_lens_opt, const Buffer& seq_lens, const TensorOption& out_opt,
    Buffer& out, const TensorOption& logits_opt, Buffer& logits)
    : KernelImpl("PagedAttentionV1"),
      num_kv_heads_(option.num_kv_heads),
      block_size_(option.block_size),
      max_seq_len_(option.max_seq_len),
      partition_size_(0),
      scale_(option.scale),
      query_(OptionalTensor(query_opt, query)),
      key_cache_(OptionalTensor(key_cache_opt, key_cache)),
      value_cache_(OptionalTensor(value_cache_opt, value_cache)),
      block_tables_(OptionalTensor(block_tables_opt, block_tables)),
      seq_lens_(OptionalTensor(seq_lens_opt, seq_lens)),
      out_(OptionalTensor(out_opt, out)),
      logits_(OptionalTensor(logits_opt, logits)) {}

PagedAttentionKernel::PagedAttentionKernel(
    const PagedAttentionV2Option& option, const TensorOption& query_opt, const Buffer& query,
    const TensorOption& key_cache_opt, const Buffer& key_cache, const TensorOption& value_cache_opt,
    const Buffer& value_cache, const TensorOption& block_tables_opt, const Buffer& block_tables,
    const TensorOption& seq_lens_opt, const Buffer& seq_lens, const TensorOption& out_opt,
    Buffer& out, const TensorOption& exp_sums_opt, Buffer& exp_sums,
    const TensorOption& max_logits_opt, Buffer& max_logits, const TensorOption& tmp_out_opt,
    Buffer& tmp_out)
    : KernelImpl("PagedAttentionV2"),
      num_kv_heads_(option.num_kv_heads),
      block_size_(option.block_size),
      max_seq_len_(option.max_seq_len),
      partition_size_(option.partition_size),
      scale_(option.scale),
      query_(OptionalTensor(query_opt, query)),
      key_cache_(OptionalTensor(key_cache_opt, key_cache)),
      value_cache_(OptionalTensor(value_cache_opt, value_cache)),
      block_tables_(OptionalTensor(block_tables_opt, block_tables)),
      seq_lens_(OptionalTensor(seq_lens_opt, seq_lens)),
      out_(OptionalTensor(out_opt, out)),
      exp_sums_(OptionalTensor(exp_sums_opt, exp_sums)),
      max_logits_(OptionalTensor(max_logits_opt, max_logits)),
      tmp_out_(OptionalTensor(tmp_out_opt, tmp_out)) {
  if (partition_size_ <= 0) {
    throw std::invalid_argument(
        StrCat(name(), ": partition_size ", partition_size_, " must be positive"));
  }
}

long PagedAttentionKernel::Partitions() const {
  return v2() ? (max_seq_len_ + partition_size_ - 1) / partition_size_ : 1;
}

bool PagedAttentionKernel::Verify() const {
  const std::string op = name();
  for (auto [t, arg] : {std::pair{&query_, "query"},
                        {&key_cache_, "key_cache"},
                        {&value_cache_, "value_cache"},
                        {&block_tables_, "block_tables"},
                        {&seq_lens_, "seq_lens"}}) {
    CheckPresent(op, arg, *t);
  }
  CheckRank(op, "query", query_, 3, 3);
  CheckFloating(op, "query", query_);
  const auto& q = query_.shape().sizes();
  const long seqs = q[0], heads = q[1], size = q[2];
  if (num_kv_heads_ <= 0 || heads % num_kv_heads_ != 0) {
    throw std::runtime_error(
        StrCat(op, ": query heads ", heads, " must be a multiple of num_kv_heads ", num_kv_heads_));
  }
  if (block_size_ <= 0 || max_seq_len_ <= 0) {
    throw std::invalid_argument(StrCat(op, ": block_size ", block_size_, " and max_seq_len ",
                                       max_seq_len_, " must be positive"));
  }
  if (size > kMaxHeadSize || size == 0) {
    throw std::runtime_error(
        StrCat(op, ": head size ", size, " must be in [1, ", kMaxHeadSize, "]"));
  }
  CheckRank(op, "key_cache", key_cache_, 4, 4);
  const long blocks = key_cache_.shape().sizes()[0];
  const std::vector<long> cache{blocks, num_kv_heads_, block_size_, size};
  CheckShaped(op, "key_cache", key_cache_, cache, query_.dtype());
  CheckShaped(op, "value_cache", value_cache_, cache, query_.dtype());
  CheckRank(op, "block_tables", block_tables_, 2, 2);
  if (block_tables_.shape().sizes()[0] != seqs) {
    throw std::runtime_error(StrCat(op, ": block_tables ", Shape(block_tables_.shape().sizes()),
                                    " must have one row per sequence of query ", Shape(q)));
  }
  CheckIndexType(op, "block_tables", block_tables_);
  CheckShaped(op, "seq_lens", seq_lens_, {seqs}, seq_lens_.dtype());
  CheckIndexType(op, "seq_lens", seq_lens_);
  CheckShaped(op, "out", out_, q, query_.dtype());
  for (const Tensor* t : {&key_cache_, &value_cache_, &block_tables_, &seq_lens_}) {
    if (!t->is_contiguous()) {
      throw std::runtime_error(
          StrCat(op, ": caches, block_tables and seq_lens must be contiguous"));
    }
  }
  const long parts = Partitions();
  if (v2()) {
    CheckShaped(op, "exp_sums", exp_sums_, {seqs, heads, parts}, kFloat);
    CheckShaped(op, "max_logits", max_logits_, {seqs, heads, parts}, kFloat);
    CheckShaped(op, "tmp_out", tmp_out_, {seqs, heads, parts, size}, kFloat);
    for (const Tensor* t : {&exp_sums_, &max_logits_, &tmp_out_}) {
      if (!t->is_contiguous()) throw std::runtime_error(StrCat(op, ": scratch must be contiguous"));
    }
  } else if (logits_.defined()) {
    CheckShaped(op, "logits", logits_, {seqs, heads, static_cast<long>(max_seq_len_)}, kFloat);
    if (!logits_.is_contiguous())
      throw std::runtime_error(StrCat(op, ": logits must be contiguous"));
  }
  return true;
}

void PagedAttentionKernel::Compile(std::shared_ptr<SessionImpl> session) {
  // Devices with a tensor unit run the tensor-core programs.
  if (TcPagedAttention(
          *this, session,
          {num_kv_heads_, block_size_, max_seq_len_, partition_size_, scale_, query_, key_cache_,
           value_cache_, block_tables_, seq_lens_, out_, logits_, exp_sums_, max_logits_, tmp_out_},
          &keep_)) {
    return;
  }
  const auto& q = query_.shape().sizes();
  const long seqs = q[0], heads = q[1], size = q[2];
  if (seqs * heads == 0) return;
  const long parts = Partitions();
  const long blocks = key_cache_.shape().sizes()[0];
  const long max_blocks = block_tables_.shape().sizes()[1];
  const long group_heads = heads / num_kv_heads_;
  const int wg = GroupSize(*session, group_heads, size);
  BuildOption options;
  options.AddDefinition("DTYPE", GetDataTypeCode(query_.dtype()))
      .AddDefinitionAutoType("HEAD_DIM", static_cast<int>(size))
      .AddDefinitionAutoType("GQ", static_cast<int>(group_heads))
      .AddDefinitionAutoType("VW", VectorWidth(size))
      .AddDefinitionAutoType("WG", wg);
  const std::vector<std::string> sources{"common.h", "random.h", "attention.h",
                                         "paged_attention.cl"};
  const View4 qv = ViewOf(*this, session, query_, &keep_);
  const View4 ov = *FoldView(out_);
  const View4 empty = EmptyView(session, &keep_);
  const Buffer& none = empty.buffer;
  auto buf = [&](const Tensor& t) { return t.defined() ? t.storage() : none; };
  MakeSubKernel(session, "PagedAttention", sources, options, "paged_attention")
      ->SetArgs(qv, key_cache_.storage(), value_cache_.storage(), block_tables_.storage(),
                block_tables_.dtype() == kInt64 ? 1 : 0, static_cast<int>(max_blocks),
                seq_lens_.storage(), seq_lens_.dtype() == kInt64 ? 1 : 0, static_cast<int>(blocks),
                block_size_, num_kv_heads_, scale_, max_seq_len_,
                v2() ? partition_size_ : max_seq_len_, static_cast<int>(parts), v2() ? 0 : 1, ov,
                buf(logits_), logits_.defined() ? 1 : 0, buf(max_logits_), buf(exp_sums_),
                buf(tmp_out_))
      .SetGlobal({static_cast<size_t>(wg), static_cast<size_t>(num_kv_heads_ * parts),
                  static_cast<size_t>(seqs)})
      .SetLocal({static_cast<size_t>(wg), 1, 1});
  if (!v2()) return;
  MakeSubKernel(session, "PagedAttention", sources, options, "paged_attention_reduce")
      ->SetArgs(max_logits_.storage(), exp_sums_.storage(), tmp_out_.storage(),
                static_cast<int>(parts), ov)
      .SetGlobal({static_cast<size_t>(wg), static_cast<size_t>(heads), static_cast<size_t>(seqs)})
      .SetLocal({static_cast<size_t>(wg), 1, 1});
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<PagedAttentionKernel, const PagedAttentionV1Option&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&, const TensorOption&,
                 const Buffer&, const TensorOption&, Buffer&, const TensorOption&, Buffer&>(
          "PagedAttentionV1");
  ClModule::singleton()
      .AddKernel<PagedAttentionKernel, const PagedAttentionV2Option&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&, const TensorOption&,
                 const Buffer&, const TensorOption&, Buffer&, const TensorOption&, Buffer&,
                 const TensorOption&, Buffer&, const TensorOption&, Buffer&>("PagedAttentionV2");
};

}  // namespace cl
}  // namespace nerva
