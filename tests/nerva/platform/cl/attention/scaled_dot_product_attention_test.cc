// ScaledDotProductAttention on the OpenCL device against a double-precision
// host attention: sequence lengths 1, 7, 64 and 257, head sizes 64 and 128,
// bool and additive masks that broadcast, causal, grouped heads, strided
// inputs, half data, the probabilities, dropout and the argument checks.

#include "nerva/platform/cl/kernel/attention/scaled_dot_product_attention.h"
#include "nerva/platform/cl/attention/attention_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

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
std::vector<double> MaskBias(const SdpaCase& c, const std::vector<double>& m) {
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

void RunSdpa(const SdpaCase& c, unsigned seed) {
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
    query = UploadAs(t, {c.B, c.L, c.H, c.E}, c.type)
                .AsStrided({c.B, c.H, c.L, c.E}, {c.L * c.H * c.E, c.E, c.H * c.E, 1}, 0);
  } else {
    query = UploadAs(q, {c.B, c.H, c.L, c.E}, c.type);
  }
  Tensor key = UploadAs(k, {c.B, c.Hk, c.S, c.E}, c.type);
  Tensor value = UploadAs(v, {c.B, c.Hk, c.S, c.Ev}, c.type);
  MaybeTensor mask = Absent();
  Tensor mask_tensor;
  if (c.mask != Mask::kNone) {
    std::vector<double> m = RandomValues(Count(c.mask_sizes), -2, 2, seed + 3);
    if (c.mask == Mask::kBool) {
      for (size_t i = 0; i < m.size(); ++i) m[i] = (m[i] > -1.2 || i % c.S == 0) ? 1 : 0;
    }
    const DataType mt = c.mask == Mask::kBool ? kBool : c.mask == Mask::kHalf ? kHalf : kFloat;
    m = RoundTrip(m, mt);
    mask_tensor = UploadAs(m, c.mask_sizes, mt);
    mask = Present(mask_tensor);
    ref.bias = MaskBias(c, m);
  }
  Tensor out = MakeOutput({c.B, c.H, c.L, c.Ev}, c.type);
  Tensor lse = MakeOutput({c.B, c.H, c.L}, kFloat);
  Tensor weights = MakeOutput({c.B, c.H, c.L, c.S}, c.type);
  const MaybeTensor w = c.weights ? Present(weights) : Absent();
  ScaledDotProductAttentionOption option;
  option.is_causal = c.causal;
  option.scale = c.scale;
  option.enable_gqa = c.H != c.Hk;
  Buffer wb = w.buffer;
  TestQueue().Enqueue(ScaledDotProductAttention::Create(
      TestQueue(), option, query.option(), query.storage(), key.option(), key.storage(),
      value.option(), value.storage(), mask.option, mask.buffer, out.option(), out.storage(),
      lse.option(), lse.storage(), w.option, wb));
  std::vector<double> p, want_lse;
  ref.Softmax(q, k, &p, &want_lse);
  const bool half = c.type == kHalf;
  ExpectClose(DownloadAs(out), ref.Output(p, v), half ? 4e-3 : 2e-5, half ? 4e-3 : 1e-4, "out");
  ExpectClose(DownloadAs(lse), want_lse, half ? 2e-3 : 2e-5, 1e-5, "logsumexp");
  if (c.weights) ExpectClose(DownloadAs(weights), p, half ? 1e-3 : 1e-6, 1e-3, "attn_weights");
}

TEST(ClSdpaTest, SequenceLengthsAndHeadSizes) {
  unsigned seed = 2000;
  for (long n : {1L, 7L, 64L, 257L}) RunSdpa({1, 2, 2, n, n, 64, 64}, seed++);
  RunSdpa({2, 1, 1, 7, 257, 128, 128}, seed++);
  RunSdpa({1, 2, 2, 64, 7, 128, 128}, seed++);
  RunSdpa({1, 1, 1, 5, 9, 64, 64, Mask::kNone, {}, false, kFloat, true, false, 0.3f}, seed++);
}

TEST(ClSdpaTest, MasksBroadcast) {
  unsigned seed = 2100;
  RunSdpa({2, 2, 2, 7, 64, 64, 64, Mask::kBool, {7, 64}}, seed++);
  RunSdpa({2, 2, 2, 7, 65, 64, 64, Mask::kFloat, {2, 1, 7, 65}, false, kFloat, true}, seed++);
  RunSdpa({1, 2, 2, 64, 33, 64, 64, Mask::kHalf, {33}}, seed++);
  RunSdpa({2, 2, 2, 3, 5, 64, 64, Mask::kBool, {2, 2, 3, 5}, false, kFloat, true}, seed++);
}

TEST(ClSdpaTest, CausalGroupedAndStrided) {
  unsigned seed = 2200;
  RunSdpa({1, 2, 2, 257, 257, 64, 64, Mask::kNone, {}, true}, seed++);
  RunSdpa({1, 2, 2, 7, 40, 64, 64, Mask::kNone, {}, true, kFloat, true}, seed++);
  RunSdpa({2, 4, 2, 7, 64, 64, 64, Mask::kNone, {}, false, kFloat, true}, seed++);
  RunSdpa({1, 8, 2, 64, 64, 128, 128, Mask::kNone, {}, true}, seed++);
  RunSdpa({2, 3, 3, 7, 64, 64, 64, Mask::kNone, {}, false, kFloat, false, true}, seed++);
}

TEST(ClSdpaTest, HalfData) {
  unsigned seed = 2300;
  RunSdpa({1, 2, 2, 64, 64, 64, 64, Mask::kFloat, {64, 64}, false, kHalf, true}, seed++);
  RunSdpa({1, 4, 2, 7, 257, 64, 64, Mask::kNone, {}, true, kHalf}, seed++);
}

// Head sizes that are not whole vectors leave padded lanes in the blocked
// program's key and value blocks.
TEST(ClSdpaTest, OddHeadSizes) {
  unsigned seed = 2400;
  RunSdpa({1, 2, 2, 7, 33, 24, 40}, seed++);
  RunSdpa({1, 1, 1, 5, 9, 24, 40, Mask::kBool, {5, 9}, false, kFloat, true}, seed++);
}

// The local-memory tiles that devices other than CPUs run.
TEST(ClSdpaTest, LocalMemoryTiles) {
  ScaledDotProductAttentionKernel::SetBlockedModeForTesting(0);
  unsigned seed = 2500;
  RunSdpa({1, 2, 2, 257, 257, 64, 64, Mask::kNone, {}, true}, seed++);
  RunSdpa({2, 4, 2, 7, 65, 64, 64, Mask::kFloat, {2, 1, 7, 65}, false, kFloat, true}, seed++);
  ScaledDotProductAttentionKernel::SetBlockedModeForTesting(-1);
}

// The flash program that GPUs run for head sizes up to 64: row groups of 64
// with a partial last group, key tiles of 64 with a partial last tile, masks,
// causal limits inside a tile, grouped heads, strided queries, half data, odd
// head sizes and several groups per head. attn_weights take the tiles.
TEST(ClSdpaTest, FlashTiles) {
  const GpuPathsForTesting gpu;
  unsigned seed = 2600;
  RunSdpa({1, 2, 2, 257, 130, 64, 64}, seed++);
  RunSdpa({1, 2, 2, 129, 129, 64, 64, Mask::kNone, {}, true}, seed++);
  RunSdpa({2, 4, 2, 7, 65, 64, 64, Mask::kFloat, {2, 1, 7, 65}}, seed++);
  RunSdpa({1, 2, 2, 70, 33, 64, 64, Mask::kBool, {70, 33}}, seed++);
  RunSdpa({2, 3, 3, 65, 64, 64, 64, Mask::kHalf, {64}, false, kFloat, false, true}, seed++);
  RunSdpa({1, 4, 2, 65, 257, 64, 64, Mask::kNone, {}, true, kHalf}, seed++);
  RunSdpa({1, 1, 1, 66, 9, 5, 3, Mask::kNone, {}, false, kFloat, false, false, 0.3f}, seed++);
  RunSdpa({1, 2, 2, 5, 9, 64, 64, Mask::kBool, {5, 9}, false, kFloat, true}, seed++);
}

// Dropout decisions depend on positions alone: the flash program (no weights)
// matches the tiles (which write the weights) drawn from the same seed.
TEST(ClSdpaTest, FlashDropoutMatchesTiles) {
  const GpuPathsForTesting gpu;
  const long B = 1, H = 2, L = 70, S = 67, E = 64;
  Tensor query = UploadAs(RandomValues(B * H * L * E, -1, 1, 2700), {B, H, L, E}, kFloat);
  Tensor key = UploadAs(RandomValues(B * H * S * E, -1, 1, 2701), {B, H, S, E}, kFloat);
  Tensor value = UploadAs(RandomValues(B * H * S * E, -1, 1, 2702), {B, H, S, E}, kFloat);
  ScaledDotProductAttentionOption option;
  option.dropout_p = 0.3f;
  option.use_seed = true;
  option.seed = 11.0f;
  std::vector<std::vector<double>> outs, lses;
  for (bool weights : {true, false}) {
    Tensor out = MakeOutput({B, H, L, E}, kFloat), lse = MakeOutput({B, H, L}, kFloat);
    Tensor w = MakeOutput({B, H, L, S}, kFloat);
    const MaybeTensor wa = weights ? Present(w) : Absent();
    const MaybeTensor none = Absent();
    Buffer wb = wa.buffer;
    TestQueue().Enqueue(ScaledDotProductAttention::Create(
        TestQueue(), option, query.option(), query.storage(), key.option(), key.storage(),
        value.option(), value.storage(), none.option, none.buffer, out.option(), out.storage(),
        lse.option(), lse.storage(), wa.option, wb));
    outs.push_back(DownloadAs(out));
    lses.push_back(DownloadAs(lse));
  }
  ExpectClose(outs[1], outs[0], 1e-5, 1e-4, "dropout out");
  ExpectClose(lses[1], lses[0], 1e-5, 1e-5, "dropout logsumexp");
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
