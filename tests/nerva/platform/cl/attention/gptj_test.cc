// GPTJBlock and GPTJDecode on the OpenCL device against a double-precision
// host composition of the same math (layer norm, rotary q/k, causal attention
// over past + new rows, tanh-GELU MLP, residual), with random small weights:
// the generic composition and the tensor-core programs (through the emulation).

#include "nerva/platform/cl/attention/attention_test_util.h"
#include "nerva/platform/cl/attention/sdpa_test_util.h"
#include "nerva/platform/cl/tensorcore/tc_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

constexpr long kH = 2, kD = 64, kE = kH * kD, kI = 96, kRot = 16, kMaxPos = 32;

struct Weights {
  std::vector<double> lnw, lnb, wq, wk, wv, wo, fiw, fib, fow, fob, sin, cos;
  explicit Weights(unsigned s) {
    lnw = RandomValues(kE, 0.5, 1.5, s), lnb = RandomValues(kE, -0.5, 0.5, s + 1);
    wq = RandomValues(kE * kE, -0.1, 0.1, s + 2), wk = RandomValues(kE * kE, -0.1, 0.1, s + 3);
    wv = RandomValues(kE * kE, -0.1, 0.1, s + 4), wo = RandomValues(kE * kE, -0.1, 0.1, s + 5);
    fiw = RandomValues(kI * kE, -0.1, 0.1, s + 6), fib = RandomValues(kI, -0.1, 0.1, s + 7);
    fow = RandomValues(kE * kI, -0.1, 0.1, s + 8), fob = RandomValues(kE, -0.1, 0.1, s + 9);
    for (long p = 0; p < kMaxPos; ++p)
      for (long i = 0; i < kRot / 2; ++i) {
        const double f = p / std::pow(10000.0, 2.0 * i / kRot);
        sin.push_back(std::sin(f));
        cos.push_back(std::cos(f));
      }
  }
};

// y[r][o] = sum_i x[r][i] w[o][i] (+ b[o]).
std::vector<double> Linear(const std::vector<double>& x, const std::vector<double>& w, long in,
                           long out, const std::vector<double>* b = nullptr) {
  const long rows = static_cast<long>(x.size()) / in;
  std::vector<double> y(rows * out);
  for (long r = 0; r < rows; ++r)
    for (long o = 0; o < out; ++o) {
      double s = b ? (*b)[o] : 0.0;
      for (long i = 0; i < in; ++i) s += x[r * in + i] * w[o * in + i];
      y[r * out + o] = s;
    }
  return y;
}

struct HostBlock {
  std::vector<double> ln, q, k, v, present_k, present_v, attn_out, mlp_hidden, mlp_out, out;
};

// hidden [B, T, E], positions [B, T], past [B, H, P, D].
HostBlock Reference(const Weights& w, const std::vector<double>& x, const std::vector<double>& pos,
                    const std::vector<double>& pk, const std::vector<double>& pv, long B, long T,
                    long P) {
  HostBlock r;
  const long rows = B * T;
  r.ln.resize(rows * kE);
  for (long i = 0; i < rows; ++i) {
    const Stats st = RunStats(x, i * kE, 1, 0, kE, 1e-5);
    for (long e = 0; e < kE; ++e)
      r.ln[i * kE + e] = (x[i * kE + e] - st.mean) * st.rstd * w.lnw[e] + w.lnb[e];
  }
  std::vector<double> proj[3] = {Linear(r.ln, w.wq, kE, kE), Linear(r.ln, w.wk, kE, kE),
                                 Linear(r.ln, w.wv, kE, kE)};
  for (int which = 0; which < 2; ++which)
    for (long i = 0; i < rows; ++i)
      for (long h = 0; h < kH; ++h)
        for (long p = 0; p < kRot / 2; ++p) {
          double* a = &proj[which][i * kE + h * kD + 2 * p];
          const long at = static_cast<long>(pos[i]) * (kRot / 2) + p;
          const double x0 = a[0], x1 = a[1];
          a[0] = x0 * w.cos[at] - x1 * w.sin[at];
          a[1] = x1 * w.cos[at] + x0 * w.sin[at];
        }
  const long S = P + T;
  auto heads = [&](const std::vector<double>& m) {  // [B, T, H, D] -> [B, H, T, D]
    std::vector<double> o(m.size());
    for (long b = 0; b < B; ++b)
      for (long t = 0; t < T; ++t)
        for (long h = 0; h < kH; ++h)
          for (long d = 0; d < kD; ++d)
            o[((b * kH + h) * T + t) * kD + d] = m[((b * T + t) * kH + h) * kD + d];
    return o;
  };
  r.q = heads(proj[0]), r.k = heads(proj[1]), r.v = heads(proj[2]);
  r.present_k.resize(B * kH * S * kD), r.present_v.resize(B * kH * S * kD);
  for (long bh = 0; bh < B * kH; ++bh)
    for (long s = 0; s < S; ++s)
      for (long d = 0; d < kD; ++d) {
        const bool old = s < P;
        r.present_k[(bh * S + s) * kD + d] =
            old ? pk[(bh * P + s) * kD + d] : r.k[(bh * T + s - P) * kD + d];
        r.present_v[(bh * S + s) * kD + d] =
            old ? pv[(bh * P + s) * kD + d] : r.v[(bh * T + s - P) * kD + d];
      }
  HostAttention att;
  att.B = B, att.H = kH, att.Hk = kH, att.L = T, att.S = S, att.E = kD, att.Ev = kD;
  att.scale = 1.0 / std::sqrt(static_cast<double>(kD));
  att.causal = true;
  att.causal_offset = P;
  std::vector<double> prob, lse;
  att.Softmax(r.q, r.present_k, &prob, &lse);
  const std::vector<double> ctx = att.Output(prob, r.present_v);  // [B, H, T, D]
  std::vector<double> merged(rows * kE);
  for (long b = 0; b < B; ++b)
    for (long h = 0; h < kH; ++h)
      for (long t = 0; t < T; ++t)
        for (long d = 0; d < kD; ++d)
          merged[((b * T + t) * kH + h) * kD + d] = ctx[((b * kH + h) * T + t) * kD + d];
  r.attn_out = Linear(merged, w.wo, kE, kE);
  r.mlp_hidden = Linear(r.ln, w.fiw, kE, kI, &w.fib);
  for (double& g : r.mlp_hidden) {
    g = 0.5 * g * (1 + std::tanh(std::sqrt(2 / M_PI) * (g + 0.044715 * g * g * g)));
  }
  r.mlp_out = Linear(r.mlp_hidden, w.fow, kI, kE, &w.fob);
  r.out.resize(rows * kE);
  for (long i = 0; i < rows * kE; ++i) r.out[i] = x[i] + r.attn_out[i] + r.mlp_out[i];
  return r;
}

struct DeviceWeights {
  Tensor lnw, lnb, wq, wk, wv, wo, fiw, fib, fow, fob, sin, cos;
  DeviceWeights(const Weights& w, const AttentionTarget& d, DataType t)
      : lnw(d.Upload(w.lnw, {kE}, t)),
        lnb(d.Upload(w.lnb, {kE}, t)),
        wq(d.Upload(w.wq, {kE, kE}, t)),
        wk(d.Upload(w.wk, {kE, kE}, t)),
        wv(d.Upload(w.wv, {kE, kE}, t)),
        wo(d.Upload(w.wo, {kE, kE}, t)),
        fiw(d.Upload(w.fiw, {kI, kE}, t)),
        fib(d.Upload(w.fib, {kI}, t)),
        fow(d.Upload(w.fow, {kE, kI}, t)),
        fob(d.Upload(w.fob, {kE}, t)),
        sin(d.Upload(w.sin, {kMaxPos, kRot / 2}, t)),
        cos(d.Upload(w.cos, {kMaxPos, kRot / 2}, t)) {}
};

// The host weights rounded to the device type, so the reference sees what the device does.
Weights RoundedWeights(unsigned seed, DataType t) {
  Weights w(seed);
  for (auto* v : {&w.lnw, &w.lnb, &w.wq, &w.wk, &w.wv, &w.wo, &w.fiw, &w.fib, &w.fow, &w.fob,
                  &w.sin, &w.cos}) {
    *v = RoundTrip(*v, t);
  }
  return w;
}

#define ARG(t) (t).option(), (t).storage()

// Runs `kernel` on the target and returns whether it ran the tensor-core programs.
bool Run(const AttentionTarget& d, const Kernel& kernel) {
  d.queue().Enqueue(kernel);
  return Runs(kernel, "gptj_gemm_tensorcore") || Runs(kernel, "gptj_decode_gemm_tensorcore");
}

bool RunBlock(long B, long T, long P, unsigned seed, const AttentionTarget& d = {},
              DataType type = kFloat) {
  SCOPED_TRACE(StrCat("block B ", B, " T ", T, " P ", P, " type ", type));
  const Weights w = RoundedWeights(seed, type);
  const DeviceWeights dw(w, d, type);
  const std::vector<double> x = RoundTrip(RandomValues(B * T * kE, -1, 1, seed + 20), type);
  std::vector<double> pos(B * T);
  for (long i = 0; i < B * T; ++i) pos[i] = static_cast<double>(P + i % T + i / T);
  const std::vector<double> pk = RoundTrip(RandomValues(B * kH * P * kD, -1, 1, seed + 21), type);
  const std::vector<double> pv = RoundTrip(RandomValues(B * kH * P * kD, -1, 1, seed + 22), type);
  const HostBlock want = Reference(w, x, pos, pk, pv, B, T, P);
  Tensor hidden = d.Upload(x, {B, T, kE}, type), positions = d.Upload(pos, {B, T}, kInt64);
  Tensor past_k, past_v;
  MaybeTensor mk = Absent(), mv = Absent();  // no past: left out
  if (P > 0) {
    past_k = d.Upload(pk, {B, kH, P, kD}, type), past_v = d.Upload(pv, {B, kH, P, kD}, type);
    mk = Present(past_k), mv = Present(past_v);
  }
  Tensor out = d.Output({B, T, kE}, type), ln = d.Output({B, T, kE}, type);
  Tensor pres_k = d.Output({B, kH, P + T, kD}, type), pres_v = d.Output({B, kH, P + T, kD}, type);
  Tensor q = d.Output({B, kH, T, kD}, type), k = d.Output({B, kH, T, kD}, type);
  Tensor v = d.Output({B, kH, T, kD}, type), scores = d.Output({B, kH, T, P + T}, type);
  Tensor attn_out = d.Output({B, T, kE}, type), mlp_h = d.Output({B, T, kI}, type);
  Tensor mlp_out = d.Output({B, T, kE}, type);
  MaybeTensor none = Absent();
  GPTJBlockOption option{static_cast<int>(kH), static_cast<int>(kD), static_cast<int>(kRot)};
  const bool tensorcore =
      Run(d, GPTJ::Create(d.queue(), option, ARG(hidden), ARG(dw.lnw), ARG(dw.lnb), ARG(dw.wq),
                          ARG(dw.wk), ARG(dw.wv), ARG(dw.wo), ARG(dw.fiw), ARG(dw.fib), ARG(dw.fow),
                          ARG(dw.fob), ARG(dw.sin), ARG(dw.cos), none.option, none.buffer,
                          ARG(positions), mk.option, mk.buffer, mv.option, mv.buffer, ARG(out),
                          ARG(pres_k), ARG(pres_v), ARG(ln), ARG(q), ARG(k), ARG(v), ARG(scores),
                          ARG(attn_out), ARG(mlp_h), ARG(mlp_out)));
  const double abs = type == kHalf ? 2e-2 : 2e-4, rel = type == kHalf ? 1e-2 : 1e-3;
  ExpectClose(d.Download(ln), want.ln, abs, rel, "ln_out");
  ExpectClose(d.Download(q), want.q, abs, rel, "query");
  ExpectClose(d.Download(k), want.k, abs, rel, "key");
  ExpectClose(d.Download(v), want.v, abs, rel, "value");
  ExpectClose(d.Download(pres_k), want.present_k, abs, rel, "present_key");
  ExpectClose(d.Download(pres_v), want.present_v, abs, rel, "present_value");
  ExpectClose(d.Download(attn_out), want.attn_out, abs, rel, "attn_out");
  ExpectClose(d.Download(mlp_h), want.mlp_hidden, abs, rel, "mlp_hidden");
  ExpectClose(d.Download(mlp_out), want.mlp_out, abs, rel, "mlp_out");
  ExpectClose(d.Download(out), want.out, abs, rel, "out");
  return tensorcore;
}

bool RunDecode(long B, long P, unsigned seed, const AttentionTarget& d = {}) {
  SCOPED_TRACE(StrCat("decode B ", B, " P ", P));
  const Weights w(seed);
  const DeviceWeights dw(w, d, kFloat);
  const std::vector<double> x = RandomValues(B * kE, -1, 1, seed + 20);
  std::vector<double> pos(B);
  for (long b = 0; b < B; ++b) pos[b] = static_cast<double>((P + 3 * b) % kMaxPos);
  const std::vector<double> pk = RandomValues(B * kH * P * kD, -1, 1, seed + 21);
  const std::vector<double> pv = RandomValues(B * kH * P * kD, -1, 1, seed + 22);
  const HostBlock want = Reference(w, x, pos, pk, pv, B, 1, P);
  Tensor hidden = d.Upload(x, {B, kE}, kFloat), positions = d.Upload(pos, {B}, kInt32);
  Tensor kc = d.Upload(pk, {B, kH, P, kD}, kFloat), vc = d.Upload(pv, {B, kH, P, kD}, kFloat);
  Tensor out = d.Output({B, kE}, kFloat), ln = d.Output({B, kE}, kFloat);
  Tensor nk = d.Output({B, kH, P + 1, kD}, kFloat), nv = d.Output({B, kH, P + 1, kD}, kFloat);
  Tensor qkv = d.Output({B, 3 * kE}, kFloat), attn_out = d.Output({B, kE}, kFloat);
  Tensor mlp_h = d.Output({B, kI}, kFloat);
  MaybeTensor none = Absent();
  GPTJDecodeOption option{static_cast<int>(kH), static_cast<int>(kD), static_cast<int>(kRot)};
  const bool tensorcore =
      Run(d, GPTJ::Create(d.queue(), option, ARG(hidden), ARG(dw.lnw), ARG(dw.lnb), ARG(dw.wq),
                          ARG(dw.wk), ARG(dw.wv), ARG(dw.wo), ARG(dw.fiw), ARG(dw.fib), ARG(dw.fow),
                          ARG(dw.fob), ARG(dw.sin), ARG(dw.cos), none.option, none.buffer,
                          ARG(positions), ARG(kc), ARG(vc), ARG(out), ARG(nk), ARG(nv), ARG(ln),
                          ARG(qkv), ARG(attn_out), ARG(mlp_h)));
  const double abs = 2e-4, rel = 1e-3;
  std::vector<double> want_qkv(B * 3 * kE);
  for (long b = 0; b < B; ++b)
    for (long e = 0; e < kE; ++e) {
      want_qkv[b * 3 * kE + e] = want.q[b * kE + e];
      want_qkv[b * 3 * kE + kE + e] = want.k[b * kE + e];
      want_qkv[b * 3 * kE + 2 * kE + e] = want.v[b * kE + e];
    }
  ExpectClose(d.Download(ln), want.ln, abs, rel, "ln_out");
  ExpectClose(d.Download(qkv), want_qkv, abs, rel, "qkv");
  ExpectClose(d.Download(nk), want.present_k, abs, rel, "new_key_cache");
  ExpectClose(d.Download(nv), want.present_v, abs, rel, "new_value_cache");
  ExpectClose(d.Download(attn_out), want.attn_out, abs, rel, "attn_out");
  ExpectClose(d.Download(mlp_h), want.mlp_hidden, abs, rel, "mlp_hidden");
  ExpectClose(d.Download(out), want.out, abs, rel, "out");
  return tensorcore;
}

TEST(ClGPTJTest, BlockAgainstHostComposition) {
  EXPECT_FALSE(RunBlock(2, 7, 0, 5000));
  RunBlock(1, 5, 3, 5100);
}

TEST(ClGPTJTest, DecodeStepAgainstHostComposition) {
  EXPECT_FALSE(RunDecode(3, 6, 5200));
}

TEST(ClGPTJTest, TensorCoreProgramsThroughTheEmulation) {
  // Row counts past one 32-row tile and an inner size (96) of several
  // column tiles, with and without past rows; decode batches of 1 and 33.
  const AttentionTarget tc{&TcSession(), &TcQueue()};
  EXPECT_TRUE(RunBlock(3, 13, 0, 5300, tc));
  EXPECT_TRUE(RunBlock(1, 5, 4, 5400, tc, kHalf));
  EXPECT_TRUE(RunDecode(1, 6, 5500, tc));
  EXPECT_TRUE(RunDecode(33, 2, 5600, tc));
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
