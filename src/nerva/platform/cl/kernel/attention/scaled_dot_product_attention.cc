#include "nerva/platform/cl/kernel/attention/scaled_dot_product_attention.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "nerva/platform/cl/kernel/attention/attention_util.h"
#include "nerva/platform/cl/kernel/norm/norm_util.h"
#include "nerva/platform/cl/kernel/random/philox.h"
#include "nerva/platform/cl/kernel/tensorcore/tc_attention.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {
constexpr int kQueryBlock = 32;
constexpr long kMaxHeadDim = 512;
// The register-blocked program: query rows per item, items per group, keys
// per block (BK in the program).
constexpr int kBlockedRows = 8;
constexpr int kBlockedGroup = 8;
constexpr long kBlockedKeys = 32;
int g_blocked_mode = -1;
// The flash program: query rows and items per group, keys per tile, and the
// largest head sizes it holds.
constexpr long kFlashRows = 64;
constexpr long kFlashGroup = 128;
constexpr long kFlashKeys = 64;
constexpr long kFlashMaxDim = 64;

// Whether the flash program takes these sizes: heads up to 64 and its query,
// key/probability and value tiles in the device's local memory.
bool FlashFits(const std::shared_ptr<SessionImpl>& session, const AttentionDims& d) {
  const long e = std::max(d.E, 1L);
  const long bytes =
      4 * (e * kFlashRows + std::max(e, kFlashRows) * kFlashKeys + kFlashKeys * kFlashMaxDim);
  return d.E <= kFlashMaxDim && d.Ev <= kFlashMaxDim &&
         static_cast<uint64_t>(bytes) <= session->local_mem_size();
}

// Keys per tile: K and V tiles of BK rows in at most 32 KiB of local memory.
int KeyBlock(long E, long Ev) {
  return static_cast<int>(std::clamp(8192L / std::max(E + Ev, 1L), 1L, 32L));
}
}  // namespace

std::vector<long> AttentionDims::Sizes(long h, long rows, long cols) const {
  std::vector<long> sizes = lead;
  if (h >= 0) sizes.push_back(h);
  sizes.push_back(rows);
  sizes.push_back(cols);
  return sizes;
}

AttentionDims AttentionShapes(const std::string& op, const Tensor& query, const Tensor& key,
                              const Tensor& value, bool enable_gqa) {
  CheckPresent(op, "query", query);
  CheckPresent(op, "key", key);
  CheckPresent(op, "value", value);
  CheckRank(op, "query", query, 2);
  const auto &q = query.shape().sizes(), &k = key.shape().sizes(), &v = value.shape().sizes();
  const size_t r = q.size();
  if (k.size() != r || v.size() != r) {
    throw std::runtime_error(StrCat(op, ": query ", Shape(q), ", key ", Shape(k), " and value ",
                                    Shape(v), " must have the same rank"));
  }
  AttentionDims d;
  d.lead.assign(q.begin(), q.end() - std::min<size_t>(r, 3));
  for (size_t i = 0; i + 3 < r; ++i) {
    if (k[i] != q[i] || v[i] != q[i]) {
      throw std::runtime_error(StrCat(op, ": batch dimensions of query ", Shape(q), ", key ",
                                      Shape(k), " and value ", Shape(v), " differ"));
    }
  }
  d.heads = r >= 3 ? q[r - 3] : -1;
  d.kv_heads = r >= 3 ? k[r - 3] : -1;
  d.L = q[r - 2];
  d.S = k[r - 2];
  d.E = q[r - 1];
  d.Ev = v[r - 1];
  if (k[r - 1] != d.E) {
    throw std::runtime_error(
        StrCat(op, ": query ", Shape(q), " and key ", Shape(k), " differ in the embedding size"));
  }
  if (v[r - 2] != d.S || (r >= 3 && v[r - 3] != d.kv_heads)) {
    throw std::runtime_error(StrCat(op, ": key ", Shape(k), " and value ", Shape(v),
                                    " differ in heads or sequence length"));
  }
  if (r >= 3 && d.heads != d.kv_heads &&
      (!enable_gqa || d.kv_heads == 0 || d.heads % d.kv_heads != 0)) {
    throw std::runtime_error(StrCat(op, ": query heads ", d.heads, " and key/value heads ",
                                    d.kv_heads,
                                    enable_gqa ? " (query heads must be a multiple)"
                                               : " differ (set enable_gqa for grouped heads)"));
  }
  if (d.E > kMaxHeadDim || d.Ev > kMaxHeadDim) {
    throw std::runtime_error(
        StrCat(op, ": head sizes ", d.E, " and ", d.Ev, " exceed ", kMaxHeadDim));
  }
  if (query.dtype() != key.dtype() || query.dtype() != value.dtype()) {
    throw std::invalid_argument(StrCat(op, ": query, key and value types ", query.dtype(), ", ",
                                       key.dtype(), ", ", value.dtype(), " must match"));
  }
  CheckFloating(op, "query", query);
  return d;
}

float AttentionScale(float scale, long E) {
  return scale != 0.0f ? scale : 1.0f / std::sqrt(static_cast<float>(std::max(E, 1L)));
}

Tensor WithUnitColumn(const Tensor& tensor) {
  std::vector<long> sizes = tensor.shape().sizes(), strides = tensor.shape().strides();
  sizes.push_back(1);
  strides.push_back(1);
  return tensor.AsStrided(sizes, strides, tensor.storage_offset());
}

Tensor ExpandMask(const std::string& op, const Tensor& mask, const std::vector<long>& sizes) {
  const auto& ms = mask.shape().sizes();
  const auto& mt = mask.shape().strides();
  bool ok = ms.size() <= sizes.size();
  std::vector<long> strides(sizes.size(), 0);
  for (size_t i = 0; ok && i < ms.size(); ++i) {
    const size_t t = sizes.size() - ms.size() + i;
    ok = ms[i] == sizes[t] || ms[i] == 1;
    strides[t] = ms[i] == 1 ? 0 : mt[i];
  }
  if (!ok) {
    throw std::runtime_error(
        StrCat(op, ": attn_mask ", Shape(ms), " does not broadcast to ", Shape(sizes)));
  }
  return mask.AsStrided(sizes, strides, mask.storage_offset());
}

int MaskKind(const std::string& op, const Tensor& mask) {
  switch (mask.dtype()) {
    case kBool:
      return 1;
    case kFloat:
      return 2;
    case kHalf:
      return 3;
    default:
      throw std::invalid_argument(
          StrCat(op, ": unsupported attn_mask type ", mask.dtype(), " (bool, float or half)"));
  }
}

ScaledDotProductAttentionKernel::ScaledDotProductAttentionKernel(
    const ScaledDotProductAttentionOption& option, const TensorOption& query_opt,
    const Buffer& query, const TensorOption& key_opt, const Buffer& key,
    const TensorOption& value_opt, const Buffer& value, const TensorOption& attn_mask_opt,
    const Buffer& attn_mask, const TensorOption& out_opt, Buffer& out,
    const TensorOption& logsumexp_opt, Buffer& logsumexp, const TensorOption& attn_weights_opt,
    Buffer& attn_weights)
    : ScaledDotProductAttentionKernel(
          option, Tensor(query_opt, query, 0), Tensor(key_opt, key, 0), Tensor(value_opt, value, 0),
          option.is_causal ? Tensor() : OptionalTensor(attn_mask_opt, attn_mask),
          OptionalTensor(out_opt, out), OptionalTensor(logsumexp_opt, logsumexp),
          OptionalTensor(attn_weights_opt, attn_weights), 0) {
  mask_with_causal_ = false;
}

ScaledDotProductAttentionKernel::ScaledDotProductAttentionKernel(
    const ScaledDotProductAttentionOption& option, Tensor query, Tensor key, Tensor value,
    Tensor attn_mask, Tensor out, Tensor logsumexp, Tensor attn_weights, int causal_offset)
    : KernelImpl("ScaledDotProductAttention"),
      option_(option),
      query_(std::move(query)),
      key_(std::move(key)),
      value_(std::move(value)),
      mask_(std::move(attn_mask)),
      out_(std::move(out)),
      lse_(std::move(logsumexp)),
      attn_(std::move(attn_weights)),
      causal_offset_(causal_offset),
      mask_with_causal_(true) {}

bool ScaledDotProductAttentionKernel::Verify() const {
  const std::string op = name();
  const AttentionDims d = AttentionShapes(op, query_, key_, value_, option_.enable_gqa);
  CheckShaped(op, "out", out_, d.Sizes(d.heads, d.L, d.Ev), query_.dtype());
  std::vector<long> lse_sizes = d.Sizes(d.heads, d.L, 1);
  lse_sizes.pop_back();
  CheckShaped(op, "logsumexp", lse_, lse_sizes, kFloat);
  if (attn_.defined()) {
    CheckShaped(op, "attn_weights", attn_, d.Sizes(d.heads, d.L, d.S), query_.dtype());
  }
  if (mask_.defined()) {
    MaskKind(op, mask_);
    ExpandMask(op, mask_, d.Sizes(d.heads, d.L, d.S));
  }
  if (!(option_.dropout_p >= 0.0f && option_.dropout_p <= 1.0f)) {
    throw std::invalid_argument(
        StrCat(op, ": dropout_p ", option_.dropout_p, " must be in [0, 1]"));
  }
  CheckSeed(op, option_.use_seed, option_.seed);
  if (d.L * d.S > 0 && Count(d.lead) * std::max(d.heads, 1L) * d.L * d.S >= (1L << 62)) {
    throw std::runtime_error(StrCat(op, ": too many scores"));
  }
  return true;
}

void ScaledDotProductAttentionKernel::SetBlockedModeForTesting(int mode) {
  g_blocked_mode = mode;
}

void ScaledDotProductAttentionKernel::Compile(std::shared_ptr<SessionImpl> session) {
  // Devices with a tensor unit run the tensor-core program.
  if (TcSdpaForward(*this, session,
                    {option_, query_, key_, value_, mask_, out_, lse_, attn_, causal_offset_},
                    &keep_)) {
    return;
  }
  const AttentionDims d = AttentionShapes(name(), query_, key_, value_, option_.enable_gqa);
  const long heads = std::max(d.heads, 1L), kv_heads = std::max(d.kv_heads, 1L);
  const long batch = Count(d.lead);
  if (batch * heads * d.L == 0) return;
  const bool causal = option_.is_causal;
  int mask_kind = 0;
  View4 mask = EmptyView(session, &keep_);
  if (mask_.defined() && (!causal || mask_with_causal_)) {
    mask_kind = MaskKind(name(), mask_);
    mask = ViewOf(*this, session, ExpandMask(name(), mask_, d.Sizes(d.heads, d.L, d.S)), &keep_);
  }
  const View4 q = ViewOf(*this, session, query_, &keep_);
  const View4 k = ViewOf(*this, session, key_, &keep_);
  const View4 v = ViewOf(*this, session, value_, &keep_);
  const View4 out = ViewOf(*this, session, out_, &keep_);
  const View4 lse = ViewOf(*this, session, WithUnitColumn(lse_), &keep_);
  const View4 attn =
      attn_.defined() ? ViewOf(*this, session, attn_, &keep_) : EmptyView(session, &keep_);
  if (out.buffer.UnsafeGetPtr() != out_.storage().UnsafeGetPtr() ||
      lse.buffer.UnsafeGetPtr() != lse_.storage().UnsafeGetPtr() ||
      (attn_.defined() && attn.buffer.UnsafeGetPtr() != attn_.storage().UnsafeGetPtr())) {
    throw std::runtime_error(StrCat(name(), ": outputs must have foldable leading dimensions"));
  }
  const float p = option_.dropout_p;
  const PhiloxDraw draw(session, option_.use_seed, option_.seed);
  const bool blocked = g_blocked_mode >= 0 ? g_blocked_mode == 1 : session->host_cpu();
  const bool flash = !blocked && (g_blocked_mode < 0 || g_blocked_mode == 2) &&
                     FlashFits(session, d) && !attn_.defined();
  BuildOption options;
  options.AddDefinition("DTYPE", GetDataTypeCode(query_.dtype()))
      .AddDefinitionAutoType("HEAD_DIM", static_cast<int>(std::max(d.E, 1L)))
      .AddDefinitionAutoType("VALUE_DIM", static_cast<int>(std::max(d.Ev, 1L)));
  if (blocked) {
    // Keys in blocks, d-major, and value rows padded to whole vectors.
    const long blocks = (d.S + kBlockedKeys - 1) / kBlockedKeys;
    const long vp = (std::max(d.Ev, 1L) + 15) / 16 * 16;
    const long e = std::max(d.E, 1L), bhk = batch * kv_heads;
    Tensor kt = ScratchTensor(session, {std::max(bhk * blocks * kBlockedKeys * e, 1L)}, kFloat);
    Tensor vs = ScratchTensor(session, {std::max(bhk * blocks * kBlockedKeys * vp, 1L)}, kFloat);
    keep_.push_back(kt);
    keep_.push_back(vs);
    options.AddDefinitionAutoType("TM", kBlockedRows).AddDefinitionAutoType("WG", kBlockedGroup);
    const std::vector<std::string> sources{"common.h", "random.h", "attention.h",
                                           "scaled_dot_product_attention_blocked.cl"};
    if (blocks > 0) {
      MakeSubKernel(session, "ScaledDotProductAttention::blocked", sources, options, "sdpa_pack")
          ->SetArgs(k, v, kt.storage(), vs.storage(), static_cast<int>(d.S),
                    static_cast<int>(blocks), static_cast<int>(kv_heads))
          .SetGlobal({static_cast<size_t>(blocks * kBlockedKeys),
                      static_cast<size_t>(std::max(e, vp)), static_cast<size_t>(bhk)});
    }
    const long rows = kBlockedRows * kBlockedGroup;
    MakeSubKernel(session, "ScaledDotProductAttention::blocked", sources, options,
                  "sdpa_forward_blocked")
        ->SetArgs(q, kt.storage(), vs.storage(), static_cast<int>(blocks), mask, mask_kind, out,
                  lse, attn, attn_.defined() ? 1 : 0, static_cast<int>(heads),
                  static_cast<int>(kv_heads), static_cast<int>(d.L), static_cast<int>(d.S),
                  static_cast<int>(heads / kv_heads), AttentionScale(option_.scale, d.E),
                  causal ? 1 : 0, causal_offset_, p, static_cast<cl_ulong>(draw.state().seed),
                  static_cast<cl_ulong>(draw.state().offset))
        .SetGlobal({static_cast<size_t>((d.L + rows - 1) / rows * kBlockedGroup),
                    static_cast<size_t>(heads), static_cast<size_t>(batch)})
        .SetLocal({static_cast<size_t>(kBlockedGroup), 1, 1});
  } else if (flash) {
    options.AddDefinitionAutoType("DROPOUT", p > 0.0f ? 1 : 0);
    MakeSubKernel(session, "ScaledDotProductAttention::flash",
                  {"common.h", "random.h", "attention.h", "scaled_dot_product_attention_flash.cl"},
                  options, "sdpa_forward_flash")
        ->SetArgs(q, k, v, mask, mask_kind, out, lse, static_cast<int>(heads),
                  static_cast<int>(d.L), static_cast<int>(d.S), static_cast<int>(heads / kv_heads),
                  AttentionScale(option_.scale, d.E), causal ? 1 : 0, causal_offset_, p,
                  static_cast<cl_ulong>(draw.state().seed),
                  static_cast<cl_ulong>(draw.state().offset))
        .SetGlobal({static_cast<size_t>((d.L + kFlashRows - 1) / kFlashRows * kFlashGroup),
                    static_cast<size_t>(heads), static_cast<size_t>(batch)})
        .SetLocal({static_cast<size_t>(kFlashGroup), 1, 1});
  } else {
    options.AddDefinitionAutoType("BQ", kQueryBlock)
        .AddDefinitionAutoType("BK", KeyBlock(d.E, d.Ev));
    MakeSubKernel(session, "ScaledDotProductAttention::forward",
                  {"common.h", "random.h", "attention.h", "scaled_dot_product_attention.cl"},
                  options, "sdpa_forward")
        ->SetArgs(q, k, v, mask, mask_kind, out, lse, attn, attn_.defined() ? 1 : 0,
                  static_cast<int>(heads), static_cast<int>(d.L), static_cast<int>(d.S),
                  static_cast<int>(heads / kv_heads), AttentionScale(option_.scale, d.E),
                  causal ? 1 : 0, causal_offset_, p, static_cast<cl_ulong>(draw.state().seed),
                  static_cast<cl_ulong>(draw.state().offset))
        .SetGlobal({static_cast<size_t>((d.L + kQueryBlock - 1) / kQueryBlock * kQueryBlock),
                    static_cast<size_t>(heads), static_cast<size_t>(batch)})
        .SetLocal({static_cast<size_t>(kQueryBlock), 1, 1});
  }
  if (p > 0.0f) draw.Advance(4);
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<ScaledDotProductAttentionKernel, const ScaledDotProductAttentionOption&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&, const TensorOption&, Buffer&, const TensorOption&,
                 Buffer&>("ScaledDotProductAttention");
};

}  // namespace cl
}  // namespace nerva
