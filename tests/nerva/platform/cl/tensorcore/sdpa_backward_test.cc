// ScaledDotProductAttentionBackward from logsumexp on the tensor-core programs through the
// emulation against the double-precision host gradients: ragged lengths, causal, grouped
// heads, half data and dropout redrawn from the forward's seed; score-sized outputs keep
// the generic program.

#include "nerva/platform/cl/kernel/attention/scaled_dot_product_attention_backward.h"
#include "nerva/platform/cl/tensorcore/tc_attention_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

struct TcBwdCase {
  long B, H, Hk, L, S, E;
  bool causal = false;
  DataType type = kFloat;
  float dropout = 0.0f;
};

void RunTcBackward(const TcBwdCase& c, unsigned seed) {
  SCOPED_TRACE(StrCat("B ", c.B, " H ", c.H, "/", c.Hk, " L ", c.L, " S ", c.S, " E ", c.E,
                      " causal ", c.causal, " type ", c.type, " dropout ", c.dropout));
  HostAttention ref{c.B, c.H, c.Hk, c.L, c.S, c.E, c.E};
  ref.scale = 1.0 / std::sqrt(static_cast<double>(c.E));
  ref.causal = c.causal;
  const DataType t = c.type;
  const std::vector<long> qs{c.B, c.H, c.L, c.E}, ks{c.B, c.Hk, c.S, c.E};
  const std::vector<long> scores{c.B, c.H, c.L, c.S};
  const std::vector<double> q = RoundTrip(RandomValues(Count(qs), -1, 1, seed), t);
  const std::vector<double> k = RoundTrip(RandomValues(Count(ks), -1, 1, seed + 1), t);
  const std::vector<double> v = RoundTrip(RandomValues(Count(ks), -1, 1, seed + 2), t);
  const std::vector<double> go = RoundTrip(RandomValues(Count(qs), -1, 1, seed + 3), t);
  Tensor query = TcTarget().Upload(q, qs, t), key = TcTarget().Upload(k, ks, t),
         value = TcTarget().Upload(v, ks, t);
  Tensor dout = TcTarget().Upload(go, qs, t);
  ScaledDotProductAttentionOption fwd;
  fwd.is_causal = c.causal;
  fwd.enable_gqa = c.H != c.Hk;
  fwd.dropout_p = c.dropout;
  fwd.use_seed = c.dropout > 0;
  fwd.seed = 77.0f;
  Tensor out = TcTarget().Output(qs, t), lse = TcTarget().Output({c.B, c.H, c.L}, kFloat);
  Tensor weights = TcTarget().Output(scores, t);
  const MaybeTensor none = Absent();
  TcQueue().Enqueue(ScaledDotProductAttention::Create(
      TcQueue(), fwd, query.option(), query.storage(), key.option(), key.storage(), value.option(),
      value.storage(), none.option, none.buffer, out.option(), out.storage(), lse.option(),
      lse.storage(), weights.option(), weights.storage()));
  std::vector<double> p, want_lse;
  ref.Softmax(q, k, &p, &want_lse);
  if (c.dropout > 0) {
    const std::vector<double> w = TcTarget().Download(weights);
    ref.keep.resize(w.size());
    for (size_t i = 0; i < w.size(); ++i) ref.keep[i] = w[i] != 0 ? 1.0 / (1.0 - c.dropout) : 0.0;
  }
  std::vector<double> dq, dk, dv, ds;
  ref.Backward(q, k, v, p, go, &dq, &dk, &dv, &ds);
  std::vector<double> want_delta(c.B * c.H * c.L, 0.0);
  for (long b = 0; b < c.B; ++b)
    for (long h = 0; h < c.H; ++h)
      for (long i = 0; i < c.L; ++i)
        for (long j = 0; j < c.S; ++j) {
          double g = 0;
          for (long e = 0; e < c.E; ++e)
            g += go[ref.Q(b, h, i) * c.E + e] * v[ref.K(b, h, j) * c.E + e];
          const long idx = ref.Score(b, h, i, j);
          want_delta[ref.Q(b, h, i)] += p[idx] * ref.Keep(idx) * g;
        }

  Tensor gq = TcTarget().Output(qs, t), gk = TcTarget().Output(ks, t),
         gv = TcTarget().Output(ks, t);
  Tensor delta = TcTarget().Output({c.B, c.H, c.L}, kFloat);
  ScaledDotProductAttentionBackwardOption option;
  static_cast<ScaledDotProductAttentionOption&>(option) = fwd;
  Buffer nm, nw, ns;
  const Kernel kernel = ScaledDotProductAttentionBackward::Create(
      TcQueue(), option, dout.option(), dout.storage(), query.option(), query.storage(),
      key.option(), key.storage(), value.option(), value.storage(), lse.option(), lse.storage(),
      gq.option(), gq.storage(), gk.option(), gk.storage(), gv.option(), gv.storage(), none.option,
      nm, none.option, nw, none.option, ns, delta.option(), delta.storage());
  ASSERT_TRUE(Runs(kernel, "sdpa_backward_kv_tensorcore"));
  TcQueue().Enqueue(kernel);
  const bool half = t == kHalf;
  const double abs = half ? 1e-2 : 1e-4, rel = half ? 1e-2 : 1e-3;
  ExpectClose(TcTarget().Download(gq), dq, abs, rel, "grad_query");
  ExpectClose(TcTarget().Download(gk), dk, abs, rel, "grad_key");
  ExpectClose(TcTarget().Download(gv), dv, abs, rel, "grad_value");
  ExpectClose(TcTarget().Download(delta), want_delta, abs, rel, "delta");
}

TEST(ClTcSdpaBackwardTest, FromLogsumexp) {
  unsigned seed = 6800;
  RunTcBackward({1, 2, 2, 7, 20, 64}, seed++);
  RunTcBackward({1, 1, 1, 37, 37, 64, true}, seed++);
  RunTcBackward({2, 4, 2, 9, 33, 64}, seed++);
  RunTcBackward({1, 1, 1, 1, 5, 64}, seed++);
}

TEST(ClTcSdpaBackwardTest, HalfAndDropout) {
  unsigned seed = 6900;
  RunTcBackward({1, 2, 2, 20, 20, 64, true, kHalf}, seed++);
  RunTcBackward({1, 2, 2, 9, 21, 64, false, kFloat, 0.3f}, seed++);
}

// The score gradients are written by the generic program alone.
TEST(ClTcSdpaBackwardTest, ScoreOutputsKeepGenericProgram) {
  const std::vector<long> qs{1, 1, 3, 64}, scores{1, 1, 3, 3};
  Tensor x = TcTarget().Output(qs, kFloat), lse = TcTarget().Output({1, 1, 3}, kFloat);
  Tensor gq = TcTarget().Output(qs, kFloat), gk = TcTarget().Output(qs, kFloat),
         gv = TcTarget().Output(qs, kFloat);
  Tensor gs = TcTarget().Output(scores, kFloat);
  const MaybeTensor none = Absent();
  Buffer nm, nw, nd;
  ScaledDotProductAttentionBackwardOption option;
  const Kernel kernel = ScaledDotProductAttentionBackward::Create(
      TcQueue(), option, x.option(), x.storage(), x.option(), x.storage(), x.option(), x.storage(),
      x.option(), x.storage(), lse.option(), lse.storage(), gq.option(), gq.storage(), gk.option(),
      gk.storage(), gv.option(), gv.storage(), none.option, nm, none.option, nw, gs.option(),
      gs.storage(), none.option, nd);
  EXPECT_FALSE(Runs(kernel, "sdpa_backward_kv_tensorcore"));
  EXPECT_TRUE(Runs(kernel, "sdpa_backward_kv"));
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
