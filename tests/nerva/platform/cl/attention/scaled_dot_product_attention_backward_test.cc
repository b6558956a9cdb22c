// ScaledDotProductAttentionBackward on the OpenCL device against the
// double-precision host gradients: from the saved probabilities (with masks)
// and from logsumexp (plain, causal, grouped heads), the three gradients, the
// scratch outputs, the mask gradient over broadcast dimensions, dropout
// redrawn from the seed, half data and the argument checks.

#include "nerva/platform/cl/attention/attention_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

struct BwdCase {
  long B, H, Hk, L, S, E;
  bool from_lse = true;
  bool causal = false;
  std::vector<long> mask_sizes = {};  // additive mask (probabilities path), empty for none
  DataType type = kFloat;
  float dropout = 0.0f;
};

void RunBackward(const BwdCase& c, unsigned seed) {
  SCOPED_TRACE(StrCat("B ", c.B, " H ", c.H, "/", c.Hk, " L ", c.L, " S ", c.S, " E ", c.E, " lse ",
                      c.from_lse, " causal ", c.causal, " mask ", Shape(c.mask_sizes), " type ",
                      c.type, " dropout ", c.dropout));
  HostAttention ref;
  ref.B = c.B, ref.H = c.H, ref.Hk = c.Hk, ref.L = c.L, ref.S = c.S, ref.E = c.E, ref.Ev = c.E;
  ref.scale = 1.0 / std::sqrt(static_cast<double>(c.E));
  ref.causal = c.causal;
  const DataType t = c.type;
  const std::vector<long> qs{c.B, c.H, c.L, c.E}, ks{c.B, c.Hk, c.S, c.E};
  const std::vector<long> scores{c.B, c.H, c.L, c.S};
  const std::vector<double> q = RoundTrip(RandomValues(Count(qs), -1, 1, seed), t);
  const std::vector<double> k = RoundTrip(RandomValues(Count(ks), -1, 1, seed + 1), t);
  const std::vector<double> v = RoundTrip(RandomValues(Count(ks), -1, 1, seed + 2), t);
  const std::vector<double> go = RoundTrip(RandomValues(Count(qs), -1, 1, seed + 3), t);
  Tensor query = UploadAs(q, qs, t), key = UploadAs(k, ks, t), value = UploadAs(v, ks, t);
  Tensor dout = UploadAs(go, qs, t);
  Tensor mask;
  MaybeTensor mask_arg = Absent();
  if (!c.mask_sizes.empty()) {
    const std::vector<double> m = RoundTrip(RandomValues(Count(c.mask_sizes), -1, 1, seed + 4), t);
    mask = UploadAs(m, c.mask_sizes, t);
    mask_arg = Present(mask);
    // With is_causal the forward leaves the mask out.
    if (!c.causal) ref.bias.resize(Count(scores));
    const size_t off = 4 - c.mask_sizes.size();
    for (long f = 0; f < Count(scores); ++f) {
      const std::vector<long> idx = Unflatten(f, scores);
      std::vector<long> mi(c.mask_sizes.size());
      for (size_t a = 0; a < mi.size(); ++a) mi[a] = c.mask_sizes[a] == 1 ? 0 : idx[a + off];
      if (!c.causal) ref.bias[f] = m[Flatten(mi, c.mask_sizes)];
    }
  }
  // The device forward gives logsumexp and (after dropout) the probabilities.
  ScaledDotProductAttentionOption fwd;
  fwd.is_causal = c.causal;
  fwd.enable_gqa = c.H != c.Hk;
  fwd.dropout_p = c.dropout;
  fwd.use_seed = c.dropout > 0;
  fwd.seed = 77.0f;
  Tensor out = MakeOutput(qs, t), lse = MakeOutput({c.B, c.H, c.L}, kFloat);
  Tensor weights = MakeOutput(scores, t);
  TestQueue().Enqueue(ScaledDotProductAttention::Create(
      TestQueue(), fwd, query.option(), query.storage(), key.option(), key.storage(),
      value.option(), value.storage(), mask_arg.option, mask_arg.buffer, out.option(),
      out.storage(), lse.option(), lse.storage(), weights.option(), weights.storage()));
  std::vector<double> p, want_lse;
  ref.Softmax(q, k, &p, &want_lse);
  if (c.dropout > 0) {
    const std::vector<double> w = DownloadAs(weights);
    ref.keep.resize(w.size());
    long dropped = 0;
    for (size_t i = 0; i < w.size(); ++i) {
      ref.keep[i] = w[i] != 0 ? 1.0 / (1.0 - c.dropout) : 0.0;
      dropped += p[i] != 0 && w[i] == 0;
      if (w[i] != 0) {
        EXPECT_NEAR(w[i], p[i] / (1.0 - c.dropout), 1e-5 + 1e-3 * w[i]) << i;
      }
    }
    const double frac = static_cast<double>(dropped) / static_cast<double>(w.size());
    EXPECT_NEAR(frac, c.dropout, 0.05);
    ExpectClose(DownloadAs(out), ref.Output(p, v), 1e-4, 1e-3, "dropout out");
  }
  std::vector<double> dq, dk, dv, ds;
  ref.Backward(q, k, v, p, go, &dq, &dk, &dv, &ds);

  Tensor gq = MakeOutput(qs, t), gk = MakeOutput(ks, t), gv = MakeOutput(ks, t);
  Tensor gw = MakeOutput(scores, t), gs = MakeOutput(scores, kFloat);
  Tensor delta = MakeOutput({c.B, c.H, c.L}, kFloat);
  Tensor gm = c.mask_sizes.empty() ? Tensor() : MakeOutput(c.mask_sizes, t);
  MaybeTensor gm_arg = c.mask_sizes.empty() ? Absent() : Present(gm);
  const Tensor& saved = c.from_lse ? lse : weights;
  ScaledDotProductAttentionBackwardOption option;
  static_cast<ScaledDotProductAttentionOption&>(option) = fwd;
  Buffer gmb = gm_arg.buffer;
  TestQueue().Enqueue(ScaledDotProductAttentionBackward::Create(
      TestQueue(), option, dout.option(), dout.storage(), query.option(), query.storage(),
      key.option(), key.storage(), value.option(), value.storage(), saved.option(), saved.storage(),
      gq.option(), gq.storage(), gk.option(), gk.storage(), gv.option(), gv.storage(),
      gm_arg.option, gmb, gw.option(), gw.storage(), gs.option(), gs.storage(), delta.option(),
      delta.storage()));
  const bool half = t == kHalf;
  const double abs = half ? 1e-2 : 1e-4, rel = half ? 1e-2 : 1e-3;
  ExpectClose(DownloadAs(gq), dq, abs, rel, "grad_query");
  ExpectClose(DownloadAs(gk), dk, abs, rel, "grad_key");
  ExpectClose(DownloadAs(gv), dv, abs, rel, "grad_value");
  ExpectClose(DownloadAs(gs), ds, abs, rel, "grad_scores");
  if (!c.mask_sizes.empty()) {
    std::vector<double> want(Count(c.mask_sizes), 0.0);
    const size_t off = 4 - c.mask_sizes.size();
    for (long f = 0; f < Count(scores); ++f) {
      const std::vector<long> idx = Unflatten(f, scores);
      std::vector<long> mi(c.mask_sizes.size());
      for (size_t a = 0; a < mi.size(); ++a) mi[a] = c.mask_sizes[a] == 1 ? 0 : idx[a + off];
      want[Flatten(mi, c.mask_sizes)] += ds[f];
    }
    ExpectClose(DownloadAs(gm), want, abs * 4, rel, "grad_attn_mask");
  }
}

TEST(ClSdpaBackwardTest, FromLogsumexp) {
  unsigned seed = 3000;
  for (long n : {1L, 7L, 64L}) RunBackward({1, 2, 2, n, n, 64}, seed++);
  RunBackward({1, 1, 1, 7, 257, 64}, seed++);
  RunBackward({1, 2, 2, 64, 64, 128, true, true}, seed++);
  RunBackward({2, 4, 2, 7, 33, 64}, seed++);             // grouped heads
  RunBackward({1, 4, 1, 9, 9, 64, true, true}, seed++);  // grouped, causal
}

TEST(ClSdpaBackwardTest, FromProbabilitiesWithMasks) {
  unsigned seed = 3100;
  RunBackward({2, 2, 2, 7, 64, 64, false, false, {7, 64}}, seed++);
  RunBackward({2, 2, 2, 7, 9, 64, false, false, {2, 1, 1, 9}}, seed++);
  RunBackward({1, 2, 2, 5, 5, 64, false, true, {2, 5, 5}}, seed++);
}

TEST(ClSdpaBackwardTest, DropoutAndHalf) {
  unsigned seed = 3200;
  RunBackward({1, 2, 2, 64, 64, 64, true, false, {}, kFloat, 0.25f}, seed++);
  RunBackward({1, 2, 2, 7, 64, 64, true, true, {}, kHalf}, seed++);
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
