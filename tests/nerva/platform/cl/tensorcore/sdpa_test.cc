// ScaledDotProductAttention's tensor-core program through the emulation against the
// double-precision host attention: head sizes 64 and 128, ragged query and key
// lengths, masks of each kind broadcasting, causal, grouped heads, strided queries,
// half data, the probabilities, and dropout drawing the generic program's decisions.

#include "nerva/platform/cl/kernel/attention/scaled_dot_product_attention.h"
#include "nerva/platform/cl/tensorcore/tc_attention_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

enum class Mask { kNone, kBool, kFloat, kHalf };

struct TcSdpaCase {
  long B, H, Hk, L, S, E, Ev;
  Mask mask = Mask::kNone;
  std::vector<long> mask_sizes = {};  // broadcasting to [B, H, L, S]
  bool causal = false;
  DataType type = kFloat;
  bool weights = false;
  bool transposed = false;  // query given as a [B, L, H, E] buffer seen as [B, H, L, E]
};

DataType MaskType(Mask mask) {
  return mask == Mask::kBool ? kBool : mask == Mask::kHalf ? kHalf : kFloat;
}

void RunTcSdpa(const TcSdpaCase& c, unsigned seed) {
  SCOPED_TRACE(StrCat("B ", c.B, " H ", c.H, "/", c.Hk, " L ", c.L, " S ", c.S, " E ", c.E,
                      " mask ", static_cast<int>(c.mask), " causal ", c.causal, " type ", c.type));
  HostAttention ref{c.B, c.H, c.Hk, c.L, c.S, c.E, c.Ev};
  ref.scale = 1.0 / std::sqrt(static_cast<double>(c.E));
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
    query = TcUploadAs(t, {c.B, c.L, c.H, c.E}, c.type)
                .AsStrided({c.B, c.H, c.L, c.E}, {c.L * c.H * c.E, c.E, c.H * c.E, 1}, 0);
  } else {
    query = TcUploadAs(q, {c.B, c.H, c.L, c.E}, c.type);
  }
  Tensor key = TcUploadAs(k, {c.B, c.Hk, c.S, c.E}, c.type);
  Tensor value = TcUploadAs(v, {c.B, c.Hk, c.S, c.Ev}, c.type);
  MaybeTensor mask = Absent();
  if (c.mask != Mask::kNone) {
    std::vector<double> m = RandomValues(Count(c.mask_sizes), -2, 2, seed + 3);
    if (c.mask == Mask::kBool) {
      for (size_t i = 0; i < m.size(); ++i) m[i] = (m[i] > -1.2 || i % c.S == 0) ? 1 : 0;
    }
    m = RoundTrip(m, MaskType(c.mask));
    mask = Present(TcUploadAs(m, c.mask_sizes, MaskType(c.mask)));
    // The mask's broadcast to [B, H, L, S] as an additive bias.
    const std::vector<long> full{c.B, c.H, c.L, c.S};
    ref.bias.resize(Count(full));
    const size_t off = 4 - c.mask_sizes.size();
    for (long f = 0; f < Count(full); ++f) {
      const std::vector<long> idx = Unflatten(f, full);
      std::vector<long> mi(c.mask_sizes.size());
      for (size_t a = 0; a < mi.size(); ++a) mi[a] = c.mask_sizes[a] == 1 ? 0 : idx[a + off];
      const double x = m[Flatten(mi, c.mask_sizes)];
      ref.bias[f] = c.mask == Mask::kBool ? (x != 0 ? 0.0 : -INFINITY) : x;
    }
  }
  Tensor out = TcOutput({c.B, c.H, c.L, c.Ev}, c.type);
  Tensor lse = TcOutput({c.B, c.H, c.L}, kFloat);
  Tensor weights = TcOutput({c.B, c.H, c.L, c.S}, c.type);
  const MaybeTensor w = c.weights ? Present(weights) : Absent();
  ScaledDotProductAttentionOption option;
  option.is_causal = c.causal;
  option.enable_gqa = c.H != c.Hk;
  Buffer wb = w.buffer;
  const Kernel kernel = ScaledDotProductAttention::Create(
      TcQueue(), option, query.option(), query.storage(), key.option(), key.storage(),
      value.option(), value.storage(), mask.option, mask.buffer, out.option(), out.storage(),
      lse.option(), lse.storage(), w.option, wb);
  ASSERT_TRUE(Runs(kernel, "sdpa_forward_tensorcore"));
  TcQueue().Enqueue(kernel);
  std::vector<double> p, want_lse;
  ref.Softmax(q, k, &p, &want_lse);
  const bool half = c.type == kHalf;
  ExpectClose(TcDownloadAs(out), ref.Output(p, v), half ? 4e-3 : 2e-5, half ? 4e-3 : 1e-4, "out");
  ExpectClose(TcDownloadAs(lse), want_lse, half ? 2e-3 : 2e-5, 1e-5, "logsumexp");
  if (c.weights) ExpectClose(TcDownloadAs(weights), p, half ? 1e-3 : 1e-6, 1e-3, "attn_weights");
}

TEST(ClTcSdpaTest, LengthsAndHeadSizes) {
  unsigned seed = 6000;
  RunTcSdpa({1, 2, 2, 1, 1, 64, 64}, seed++);
  RunTcSdpa({1, 2, 2, 7, 7, 64, 64}, seed++);
  RunTcSdpa({1, 1, 1, 37, 70, 64, 64}, seed++);
  RunTcSdpa({2, 1, 1, 5, 33, 128, 40}, seed++);
}

TEST(ClTcSdpaTest, MasksCausalGroupedStrided) {
  unsigned seed = 6100;
  RunTcSdpa({2, 2, 2, 7, 40, 64, 64, Mask::kBool, {7, 40}}, seed++);
  RunTcSdpa({1, 1, 1, 3, 9, 128, 40, Mask::kBool, {3, 9}, false, kFloat, true}, seed++);
  RunTcSdpa({2, 2, 2, 7, 33, 64, 64, Mask::kFloat, {2, 1, 7, 33}, false, kFloat, true}, seed++);
  RunTcSdpa({1, 1, 1, 40, 40, 64, 64, Mask::kNone, {}, true, kFloat, true}, seed++);
  RunTcSdpa({1, 4, 2, 7, 20, 64, 64, Mask::kNone, {}, true}, seed++);
  RunTcSdpa({2, 3, 3, 7, 20, 64, 64, Mask::kNone, {}, false, kFloat, false, true}, seed++);
}

TEST(ClTcSdpaTest, HalfData) {
  unsigned seed = 6200;
  RunTcSdpa({1, 2, 2, 33, 33, 64, 64, Mask::kHalf, {33, 33}, false, kHalf, true}, seed++);
  RunTcSdpa({1, 4, 2, 7, 45, 64, 64, Mask::kNone, {}, true, kHalf}, seed++);
}

// With a fixed seed the tensor-core program keeps and drops the same probabilities as
// the generic program of a session without the extension.
TEST(ClTcSdpaTest, DropoutMatchesGenericProgram) {
  const long B = 1, H = 2, L = 9, S = 21, E = 64;
  ScaledDotProductAttentionOption option;
  option.dropout_p = 0.3f;
  option.use_seed = true;
  option.seed = 1234.0f;
  const std::vector<double> q = RandomValues(B * H * L * E, -1, 1, 6300);
  const std::vector<double> k = RandomValues(B * H * S * E, -1, 1, 6301);
  const std::vector<double> v = RandomValues(B * H * S * E, -1, 1, 6302);
  std::vector<std::vector<double>> results;
  for (bool tc : {true, false}) {
    auto up = [&](const std::vector<double>& x, std::vector<long> sizes) {
      return tc ? TcUploadAs(x, sizes, kFloat) : UploadAs(x, sizes, kFloat);
    };
    auto output = [&](std::vector<long> sizes) {
      return tc ? TcOutput(sizes, kFloat) : MakeOutput(sizes, kFloat);
    };
    Queue& queue = tc ? TcQueue() : TestQueue();
    Tensor query = up(q, {B, H, L, E}), key = up(k, {B, H, S, E}), value = up(v, {B, H, S, E});
    Tensor out = output({B, H, L, E}), lse = output({B, H, L}), weights = output({B, H, L, S});
    const MaybeTensor none = Absent();
    Buffer wb = weights.storage();
    const Kernel kernel = ScaledDotProductAttention::Create(
        queue, option, query.option(), query.storage(), key.option(), key.storage(), value.option(),
        value.storage(), none.option, none.buffer, out.option(), out.storage(), lse.option(),
        lse.storage(), weights.option(), wb);
    EXPECT_EQ(Runs(kernel, "sdpa_forward_tensorcore"), tc);
    queue.Enqueue(kernel);
    results.push_back(tc ? TcDownloadAs(weights) : DownloadAs(weights));
    results.push_back(tc ? TcDownloadAs(out) : DownloadAs(out));
  }
  long dropped = 0;
  for (double x : results[0]) dropped += x == 0.0;
  EXPECT_GT(dropped, 0);
  ExpectClose(results[0], results[2], 1e-6, 1e-4, "attn_weights");
  ExpectClose(results[1], results[3], 2e-5, 1e-4, "out");
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
