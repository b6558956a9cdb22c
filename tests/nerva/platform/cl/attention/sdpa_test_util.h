#pragma once

// The scaled dot-product attention case runner shared by the generic and the
// tensor-core tests: random operands on a target session, the device result
// against the double-precision host attention.

#include <cmath>
#include <string>
#include <vector>

#include "nerva/kernel/transformers.h"
#include "nerva/platform/cl/attention/attention_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
inline namespace sdpa_util {

// The session and queue a case runs on (the shared test session by default).
struct AttentionTarget {
  Session* session_ = nullptr;
  Queue* queue_ = nullptr;

  Session& session() const { return session_ ? *session_ : TestSession(); }
  Queue& queue() const { return queue_ ? *queue_ : TestQueue(); }
  Tensor Upload(const std::vector<double>& values, const std::vector<long>& sizes,
                DataType type) const {
    const std::vector<uint8_t> bytes = ToBytes(values, type);
    Tensor tensor = session().MakeTensor(sizes, type);
    queue().CopyHostToDevice(tensor.storage(), bytes.data(), static_cast<long>(bytes.size()));
    return tensor;
  }
  // An output filled with a marker value.
  Tensor Output(const std::vector<long>& sizes, DataType type) const {
    return Upload(std::vector<double>(static_cast<size_t>(Count(sizes)), 77.0), sizes, type);
  }
  std::vector<double> Download(const Tensor& tensor) const {
    std::vector<uint8_t> bytes(static_cast<size_t>(Count(tensor.shape().sizes())) *
                               TypeTraitsHelper::GetSize(tensor.dtype()));
    queue().CopyDeviceToHost(bytes.data(), tensor.storage(), static_cast<long>(bytes.size()));
    return FromBytes(bytes, tensor.dtype());
  }
};

// Whether `kernel` runs the device kernel `name`.
inline bool Runs(const Kernel& kernel, const std::string& name) {
  for (const auto& unit : UnitNames(kernel)) {
    if (unit == name) return true;
  }
  return false;
}

enum class Mask { kNone, kBool, kFloat, kHalf };

struct SdpaCase {
  long B, H, Hk, L, S, E, Ev;
  Mask mask = Mask::kNone;
  std::vector<long> mask_sizes = {};  // broadcasting to [B, H, L, S]
  bool causal = false;
  DataType type = kFloat;
  bool weights = false;
  bool transposed = false;  // query given as a [B, L, H, E] buffer seen as [B, H, L, E]
  float scale = 0.0f;
};

// Mask values over mask_sizes and their broadcast to [B, H, L, S] as additive bias.
inline std::vector<double> MaskBias(const SdpaCase& c, const std::vector<double>& m) {
  const std::vector<long> full{c.B, c.H, c.L, c.S};
  std::vector<double> bias(Count(full));
  const size_t off = 4 - c.mask_sizes.size();
  for (long f = 0; f < Count(full); ++f) {
    const std::vector<long> idx = Unflatten(f, full);
    std::vector<long> mi(c.mask_sizes.size());
    for (size_t a = 0; a < mi.size(); ++a) mi[a] = c.mask_sizes[a] == 1 ? 0 : idx[a + off];
    const double x = m[Flatten(mi, c.mask_sizes)];
    bias[f] = c.mask == Mask::kBool ? (x != 0 ? 0.0 : -INFINITY) : x;
  }
  return bias;
}

// Runs case `c` on `target` against the host attention; with `program` given, the
// kernel must run that device kernel.
inline void RunSdpa(const SdpaCase& c, unsigned seed, const AttentionTarget& target = {},
                    const char* program = nullptr) {
  SCOPED_TRACE(StrCat("B ", c.B, " H ", c.H, "/", c.Hk, " L ", c.L, " S ", c.S, " E ", c.E,
                      " mask ", static_cast<int>(c.mask), " causal ", c.causal, " type ", c.type));
  HostAttention ref{c.B, c.H, c.Hk, c.L, c.S, c.E, c.Ev};
  ref.scale = c.scale != 0 ? c.scale : 1.0 / std::sqrt(static_cast<double>(c.E));
  ref.causal = c.causal;
  const std::vector<double> q = RoundTrip(RandomValues(c.B * c.H * c.L * c.E, -1, 1, seed), c.type);
  const std::vector<double> k =
      RoundTrip(RandomValues(c.B * c.Hk * c.S * c.E, -1, 1, seed + 1), c.type);
  const std::vector<double> v =
      RoundTrip(RandomValues(c.B * c.Hk * c.S * c.Ev, -1, 1, seed + 2), c.type);
  Tensor query;
  if (c.transposed) {
    std::vector<double> t(q.size());
    for (long b = 0; b < c.B; ++b)
      for (long h = 0; h < c.H; ++h)
        for (long i = 0; i < c.L; ++i)
          for (long e = 0; e < c.E; ++e)
            t[((b * c.L + i) * c.H + h) * c.E + e] = q[((b * c.H + h) * c.L + i) * c.E + e];
    query = target.Upload(t, {c.B, c.L, c.H, c.E}, c.type)
                .AsStrided({c.B, c.H, c.L, c.E}, {c.L * c.H * c.E, c.E, c.H * c.E, 1}, 0);
  } else {
    query = target.Upload(q, {c.B, c.H, c.L, c.E}, c.type);
  }
  Tensor key = target.Upload(k, {c.B, c.Hk, c.S, c.E}, c.type);
  Tensor value = target.Upload(v, {c.B, c.Hk, c.S, c.Ev}, c.type);
  MaybeTensor mask = Absent();
  Tensor mask_tensor;
  if (c.mask != Mask::kNone) {
    std::vector<double> m = RandomValues(Count(c.mask_sizes), -2, 2, seed + 3);
    if (c.mask == Mask::kBool) {
      for (size_t i = 0; i < m.size(); ++i) m[i] = (m[i] > -1.2 || i % c.S == 0) ? 1 : 0;
    }
    const DataType mt = c.mask == Mask::kBool ? kBool : c.mask == Mask::kHalf ? kHalf : kFloat;
    m = RoundTrip(m, mt);
    mask_tensor = target.Upload(m, c.mask_sizes, mt);
    mask = Present(mask_tensor);
    ref.bias = MaskBias(c, m);
  }
  Tensor out = target.Output({c.B, c.H, c.L, c.Ev}, c.type);
  Tensor lse = target.Output({c.B, c.H, c.L}, kFloat);
  Tensor weights = target.Output({c.B, c.H, c.L, c.S}, c.type);
  const MaybeTensor w = c.weights ? Present(weights) : Absent();
  ScaledDotProductAttentionOption option;
  option.is_causal = c.causal;
  option.scale = c.scale;
  option.enable_gqa = c.H != c.Hk;
  Buffer wb = w.buffer;
  const Kernel kernel = ScaledDotProductAttention::Create(
      target.queue(), option, query.option(), query.storage(), key.option(), key.storage(),
      value.option(), value.storage(), mask.option, mask.buffer, out.option(), out.storage(),
      lse.option(), lse.storage(), w.option, wb);
  if (program) ASSERT_TRUE(Runs(kernel, program)) << program;
  target.queue().Enqueue(kernel);
  std::vector<double> p, want_lse;
  ref.Softmax(q, k, &p, &want_lse);
  const bool half = c.type == kHalf;
  ExpectClose(target.Download(out), ref.Output(p, v), half ? 4e-3 : 2e-5, half ? 4e-3 : 1e-4,
              "out");
  ExpectClose(target.Download(lse), want_lse, half ? 2e-3 : 2e-5, 1e-5, "logsumexp");
  if (c.weights) ExpectClose(target.Download(weights), p, half ? 1e-3 : 1e-6, 1e-3, "attn_weights");
}

}  // namespace sdpa_util
}  // namespace testing
}  // namespace cl
}  // namespace nerva
