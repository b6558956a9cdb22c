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

}  // namespace cl
}  // namespace nerva
