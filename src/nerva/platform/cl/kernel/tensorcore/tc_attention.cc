#include "nerva/platform/cl/kernel/tensorcore/tc_attention.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "nerva/platform/cl/kernel/attention/attention_util.h"
#include "nerva/platform/cl/kernel/attention/scaled_dot_product_attention.h"
#include "nerva/platform/cl/kernel/random/philox.h"
#include "nerva/platform/cl/kernel/tensorcore/tc_frame.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

constexpr int kBlock = 64;

long ItemSize(DataType type) {
  return static_cast<long>(TypeTraitsHelper::GetSize(type));
}

long Aligned(long bytes) {
  return (bytes + kTcLocalAlign - 1) / kTcLocalAlign * kTcLocalAlign;
}

// Local memory of sdpa_forward_tensorcore with tiles of `bq` queries and `bk` keys.
long ForwardLocalBytes(long bq, long bk, long E, long Ev, long item) {
  return Aligned(bq * E * item) + Aligned(bq * bk * 4) + Aligned(bq * bk * item) +
         Aligned(bq * Ev * 4) + 3 * bq * 4;
}

// The tile size (BQ = BK) that fits, or 0.
long ForwardTile(const SessionImpl& session, long E, long Ev, long item) {
  for (long tile : {32L, 16L}) {
    if (static_cast<uint64_t>(ForwardLocalBytes(tile, tile, E, Ev, item)) <=
        session.available_local_mem()) {
      return tile;
    }
  }
  return 0;
}

bool SameStorage(const View4& view, const Tensor& tensor) {
  return view.buffer.UnsafeGetPtr() == tensor.storage().UnsafeGetPtr();
}

}  // namespace

bool TcSdpaForward(KernelImpl& kernel, const std::shared_ptr<SessionImpl>& session,
                   const TcSdpaForwardArgs& a, std::vector<Tensor>* keep) {
  if (!session->dev_supports_extension(kTensorCoreExtension)) return false;
  const std::string op = kernel.name();
  const AttentionDims d = AttentionShapes(op, a.query, a.key, a.value, a.option.enable_gqa);
  const long E = std::max(d.E, 1L), Ev = std::max(d.Ev, 1L), item = ItemSize(a.query.dtype());
  const long tile = ForwardTile(*session, E, Ev, item);
  if (tile == 0) return false;
  const long heads = std::max(d.heads, 1L), kv_heads = std::max(d.kv_heads, 1L);
  const long batch = Count(d.lead);
  if (batch * heads * d.L == 0) return true;

  View4 mask = EmptyView(session, keep);
  int mask_kind = 0;
  if (a.mask.defined()) {
    mask_kind = MaskKind(op, a.mask);
    mask = ViewOf(kernel, session, ExpandMask(op, a.mask, d.Sizes(d.heads, d.L, d.S)), keep);
  }
  const View4 q = ViewOf(kernel, session, a.query, keep);
  const View4 k = ViewOf(kernel, session, a.key, keep);
  const View4 v = ViewOf(kernel, session, a.value, keep);
  const View4 out = ViewOf(kernel, session, a.out, keep);
  const View4 lse = ViewOf(kernel, session, WithUnitColumn(a.lse), keep);
  const View4 attn =
      a.attn.defined() ? ViewOf(kernel, session, a.attn, keep) : EmptyView(session, keep);
  if (!SameStorage(out, a.out) || !SameStorage(lse, a.lse) ||
      (a.attn.defined() && !SameStorage(attn, a.attn))) {
    throw std::runtime_error(StrCat(op, ": outputs must have foldable leading dimensions"));
  }

  const long tiles = (d.S + tile - 1) / tile;
  const long bhk = batch * kv_heads;
  const Tensor kt = ScratchTensor(session, {std::max(bhk * tiles * tile * E * item, 1L)}, kUInt8);
  const Tensor vp = ScratchTensor(session, {std::max(bhk * tiles * tile * Ev * item, 1L)}, kUInt8);
  keep->push_back(kt);
  keep->push_back(vp);

  BuildOption options = TensorCoreBuildOption(*session, kBlock);
  options.AddDefinition("DTYPE", GetDataTypeCode(a.query.dtype()))
      .AddDefinitionAutoType("DTYPE_SIZE", item)
      .AddDefinitionAutoType("HEAD_DIM", E)
      .AddDefinitionAutoType("VALUE_DIM", Ev)
      .AddDefinitionAutoType("BQ", tile)
      .AddDefinitionAutoType("BK", tile);
  const std::vector<std::string> sources{"common.h",
                                         "random.h",
                                         "attention.h",
                                         "tensorcore/tc_common.h",
                                         "tensorcore/scaled_dot_product_transpose.cl",
                                         "tensorcore/scaled_dot_product_attention.cl"};
  const std::string program = ConcatenateStrings(op, "tensorcore");
  if (tiles > 0) {
    kernel.MakeSubKernel(session, program, sources, options, "sdpa_pack_tensorcore")
        ->SetArgs(k, v, kt.storage(), vp.storage(), static_cast<int>(d.S), static_cast<int>(tiles),
                  static_cast<int>(kv_heads))
        .SetGlobal({static_cast<size_t>(tiles * tile), static_cast<size_t>(std::max(E, Ev)),
                    static_cast<size_t>(bhk)});
  }
  const float p = a.option.dropout_p;
  const PhiloxDraw draw(session, a.option.use_seed, a.option.seed);
  kernel.MakeSubKernel(session, program, sources, options, "sdpa_forward_tensorcore")
      ->SetArgs(q, kt.storage(), vp.storage(), static_cast<int>(tiles), mask, mask_kind, out, lse,
                attn, a.attn.defined() ? 1 : 0, static_cast<int>(heads), static_cast<int>(kv_heads),
                static_cast<int>(d.L), static_cast<int>(d.S), static_cast<int>(heads / kv_heads),
                AttentionScale(a.option.scale, d.E), a.option.is_causal ? 1 : 0, a.causal_offset, p,
                static_cast<cl_ulong>(draw.state().seed),
                static_cast<cl_ulong>(draw.state().offset))
      .SetGlobal({static_cast<size_t>(kBlock), static_cast<size_t>((d.L + tile - 1) / tile),
                  static_cast<size_t>(batch * heads)})
      .SetLocal({static_cast<size_t>(kBlock), 1, 1});
  if (p > 0.0f) draw.Advance(4);
  return true;
}

namespace {

// Local memory of sdpa_backward_kv_tensorcore, the largest of the backward's kernels.
long BackwardLocalBytes(long tile, long E, long Ev, long item) {
  return Aligned(tile * E * item) + Aligned(tile * Ev * item) + 2 * Aligned(tile * tile * 4) +
         2 * Aligned(tile * tile * item) + Aligned(tile * E * 4) + Aligned(tile * Ev * 4) +
         2 * tile * 4;
}

}  // namespace

bool TcSdpaBackward(KernelImpl& kernel, const std::shared_ptr<SessionImpl>& session,
                    const TcSdpaBackwardArgs& a, std::vector<Tensor>* keep) {
  if (!session->dev_supports_extension(kTensorCoreExtension) || !a.from_lse ||
      a.grad_mask.defined() || a.grad_weights.defined() || a.grad_scores.defined()) {
    return false;
  }
  const std::string op = kernel.name();
  const AttentionDims d = AttentionShapes(op, a.query, a.key, a.value, a.option.enable_gqa);
  const long E = std::max(d.E, 1L), Ev = std::max(d.Ev, 1L), item = ItemSize(a.query.dtype());
  long tile = 0;
  for (long t : {32L, 16L}) {
    if (tile == 0 && static_cast<uint64_t>(BackwardLocalBytes(t, E, Ev, item)) <=
                         session->available_local_mem()) {
      tile = t;
    }
  }
  if (tile == 0) return false;
  const long heads = std::max(d.heads, 1L), kv_heads = std::max(d.kv_heads, 1L);
  const long batch = Count(d.lead);
  if (batch * heads == 0 || (d.L == 0 && d.S == 0)) return true;
  const View4 empty = EmptyView(session, keep);
  auto view = [&](const Tensor& t) {
    return t.defined() ? ViewOf(kernel, session, t, keep) : empty;
  };
  const View4 dout = view(a.grad_output), q = view(a.query), k = view(a.key), v = view(a.value);
  const View4 lse = view(WithUnitColumn(a.saved));
  Tensor delta = a.delta.defined()
                     ? WithUnitColumn(a.delta)
                     : ScratchTensor(session, {batch, heads, std::max(d.L, 1L), 1}, kFloat);
  keep->push_back(delta);
  const View4 delta_view = view(delta);
  const long tiles = (d.S + tile - 1) / tile, bhk = batch * kv_heads;
  const long rows = tiles * tile;
  const Tensor kt = ScratchTensor(session, {std::max(bhk * rows * E * item, 1L)}, kUInt8);
  const Tensor vt = ScratchTensor(session, {std::max(bhk * rows * Ev * item, 1L)}, kUInt8);
  const Tensor kp = ScratchTensor(session, {std::max(bhk * rows * E * item, 1L)}, kUInt8);
  keep->insert(keep->end(), {kt, vt, kp});
  BuildOption options = TensorCoreBuildOption(*session, kBlock);
  options.AddDefinition("DTYPE", GetDataTypeCode(a.query.dtype()))
      .AddDefinitionAutoType("DTYPE_SIZE", item)
      .AddDefinitionAutoType("HEAD_DIM", E)
      .AddDefinitionAutoType("VALUE_DIM", Ev)
      .AddDefinitionAutoType("BQ", tile)
      .AddDefinitionAutoType("BK", tile);
  const std::vector<std::string> sources{
      "common.h",
      "random.h",
      "attention.h",
      "tensorcore/tc_common.h",
      "tensorcore/scaled_dot_product_attention_backward_transpose.cl",
      "tensorcore/scaled_dot_product_attention_backward_split.cl",
      "tensorcore/scaled_dot_product_attention_backward.cl",
      "tensorcore/scaled_dot_product_attention_backward_kv.cl"};
  const std::string program = ConcatenateStrings(op, "tensorcore");
  const PhiloxDraw draw(session, a.option.use_seed, a.option.seed);
  auto params = [&](KernelUnit& unit) {
    unit.SetArg(static_cast<int>(tiles))
        .SetArg(static_cast<int>(heads))
        .SetArg(static_cast<int>(kv_heads))
        .SetArg(static_cast<int>(d.L))
        .SetArg(static_cast<int>(d.S))
        .SetArg(static_cast<int>(heads / kv_heads))
        .SetArg(AttentionScale(a.option.scale, d.E))
        .SetArg(a.option.is_causal ? 1 : 0)
        .SetArg(a.option.dropout_p)
        .SetArg(static_cast<cl_ulong>(draw.state().seed))
        .SetArg(static_cast<cl_ulong>(draw.state().offset));
  };
  const std::vector<size_t> local{static_cast<size_t>(kBlock), 1, 1};
  if (tiles > 0) {
    kernel.MakeSubKernel(session, program, sources, options, "sdpa_backward_pack_tensorcore")
        ->SetArgs(k, v, kt.storage(), vt.storage(), kp.storage(), static_cast<int>(d.S),
                  static_cast<int>(tiles), static_cast<int>(kv_heads))
        .SetGlobal({static_cast<size_t>(rows), static_cast<size_t>(std::max(E, Ev)),
                    static_cast<size_t>(bhk)});
  }
  if (d.L > 0) {
    const std::vector<size_t> global{static_cast<size_t>(kBlock),
                                     static_cast<size_t>((d.L + tile - 1) / tile),
                                     static_cast<size_t>(batch * heads)};
    auto delta_unit =
        kernel.MakeSubKernel(session, program, sources, options, "sdpa_backward_delta_tensorcore");
    delta_unit->SetArgs(dout, q, kt.storage(), vt.storage(), lse, delta_view);
    params(*delta_unit);
    delta_unit->SetGlobal(global).SetLocal(local);
    auto query_unit =
        kernel.MakeSubKernel(session, program, sources, options, "sdpa_backward_query_tensorcore");
    query_unit->SetArgs(dout, q, kt.storage(), vt.storage(), kp.storage(), lse, delta_view,
                        view(a.grad_query));
    params(*query_unit);
    query_unit->SetGlobal(global).SetLocal(local);
  }
  if (d.S > 0) {
    auto kv_unit =
        kernel.MakeSubKernel(session, program, sources, options, "sdpa_backward_kv_tensorcore");
    kv_unit->SetArgs(dout, q, kt.storage(), vt.storage(), lse, delta_view, view(a.grad_key),
                     view(a.grad_value));
    params(*kv_unit);
    kv_unit
        ->SetGlobal(
            {static_cast<size_t>(kBlock), static_cast<size_t>(tiles), static_cast<size_t>(bhk)})
        .SetLocal(local);
  }
  return true;
}

bool TcPagedAttention(KernelImpl& kernel, const std::shared_ptr<SessionImpl>& session,
                      const TcPagedArgs& a, std::vector<Tensor>* keep) {
  if (!session->dev_supports_extension(kTensorCoreExtension)) return false;
  const auto& qs = a.query.shape().sizes();
  const long seqs = qs[0], heads = qs[1], size = qs[2];
  if (seqs * heads == 0) return true;
  const bool v2 = a.partition_size > 0;
  const long parts = v2 ? (a.max_seq_len + a.partition_size - 1) / a.partition_size : 1;
  const long blocks = a.key_cache.shape().sizes()[0];
  const long max_blocks = a.block_tables.shape().sizes()[1];
  BuildOption options = TensorCoreBuildOption(*session, kBlock);
  options.AddDefinition("DTYPE", GetDataTypeCode(a.query.dtype()))
      .AddDefinitionAutoType("DTYPE_SIZE", ItemSize(a.query.dtype()))
      .AddDefinitionAutoType("HEAD_DIM", size)
      .AddDefinitionAutoType("GQ", heads / a.num_kv_heads)
      .AddDefinitionAutoType("BLOCK_TOKENS", a.block_size);
  const View4 q = ViewOf(kernel, session, a.query, keep);
  const View4 out = *FoldView(a.out);
  const Buffer none = EmptyView(session, keep).buffer;
  const std::string program = ConcatenateStrings("PagedAttention", "tensorcore");
  const std::vector<std::string> sources{"common.h",
                                         "random.h",
                                         "attention.h",
                                         "tensorcore/tc_common.h",
                                         "tensorcore/paged_attention_v1.cl",
                                         "tensorcore/paged_attention_v2.cl"};
  const int bt64 = a.block_tables.dtype() == kInt64 ? 1 : 0;
  const int sl64 = a.seq_lens.dtype() == kInt64 ? 1 : 0;
  const std::vector<size_t> local{static_cast<size_t>(kBlock), 1, 1};
  if (!v2) {
    kernel.MakeSubKernel(session, program, sources, options, "paged_attention_v1_tensorcore")
        ->SetArgs(q, a.key_cache.storage(), a.value_cache.storage(), a.block_tables.storage(), bt64,
                  static_cast<int>(max_blocks), a.seq_lens.storage(), sl64,
                  static_cast<int>(blocks), a.num_kv_heads, a.scale, a.max_seq_len, out,
                  a.logits.defined() ? a.logits.storage() : none, a.logits.defined() ? 1 : 0)
        .SetGlobal({static_cast<size_t>(kBlock), static_cast<size_t>(a.num_kv_heads),
                    static_cast<size_t>(seqs)})
        .SetLocal(local);
    return true;
  }
  kernel.MakeSubKernel(session, program, sources, options, "paged_attention_v2_tensorcore")
      ->SetArgs(q, a.key_cache.storage(), a.value_cache.storage(), a.block_tables.storage(), bt64,
                static_cast<int>(max_blocks), a.seq_lens.storage(), sl64, static_cast<int>(blocks),
                a.num_kv_heads, a.scale, a.max_seq_len, a.partition_size, static_cast<int>(parts),
                a.max_logits.storage(), a.exp_sums.storage(), a.tmp_out.storage())
      .SetGlobal({static_cast<size_t>(kBlock), static_cast<size_t>(a.num_kv_heads * parts),
                  static_cast<size_t>(seqs)})
      .SetLocal(local);
  options.AddDefinitionAutoType("NUM_PARTS", parts);
  kernel
      .MakeSubKernel(session, ConcatenateStrings(program, "reduce"),
                     {"common.h", "random.h", "attention.h", "tensorcore/tc_common.h",
                      "tensorcore/paged_attention_v2_reduce.cl"},
                     options, "paged_attention_v2_reduce_tensorcore")
      ->SetArgs(a.max_logits.storage(), a.exp_sums.storage(), a.tmp_out.storage(), out)
      .SetGlobal(
          {static_cast<size_t>(kBlock), static_cast<size_t>(heads), static_cast<size_t>(seqs)})
      .SetLocal(local);
  return true;
}

}  // namespace cl
}  // namespace nerva
