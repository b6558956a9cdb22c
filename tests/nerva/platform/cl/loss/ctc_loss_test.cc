// CTCLoss and CTCLossBackward on the OpenCL device against a double-precision
// alpha recursion and finite differences of it.

#include <cmath>
#include <string>

#include "nerva/platform/cl/loss/loss_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

struct CtcCase {
  long steps, batch, classes;
  std::vector<std::vector<long>> labels;  // per sample
  std::vector<long> input_lengths;
  bool concatenated = false;
  bool zero_infinity = false;
  DataType type = kFloat;
};

double Lse(double a, double b) {
  const double m = std::max(a, b);
  return m == -INFINITY ? m : m + std::log(std::exp(a - m) + std::exp(b - m));
}

// -log p(labels | lp) of one sample by the alpha recursion; lp(t, c).
template <typename F>
double Nll(const std::vector<long>& labels, long len_t, long blank, F lp) {
  const long kp = 2 * static_cast<long>(labels.size()) + 1;
  auto label = [&](long s) { return s % 2 ? labels[s / 2] : blank; };
  std::vector<double> a(kp, -INFINITY), next(kp);
  if (len_t == 0) return labels.empty() ? 0 : INFINITY;
  a[0] = lp(0, blank);
  if (kp > 1) a[1] = lp(0, label(1));
  for (long t = 1; t < len_t; ++t) {
    for (long s = 0; s < kp; ++s) {
      double v = a[s];
      if (s >= 1) v = Lse(v, a[s - 1]);
      if (s % 2 && s >= 2 && label(s) != label(s - 2)) v = Lse(v, a[s - 2]);
      next[s] = v + lp(t, label(s));
    }
    a = next;
  }
  return -(kp >= 2 ? Lse(a[kp - 1], a[kp - 2]) : a[kp - 1]);
}

void RunCtcCase(const CtcCase& c, LossReduction r, unsigned seed) {
  SCOPED_TRACE(StrCat("T ", c.steps, " N ", c.batch, " C ", c.classes, " concatenated ",
                      c.concatenated, " zero_infinity ", c.zero_infinity, " reduction ",
                      static_cast<int>(r), " type ", c.type));
  const long T = c.steps, N = c.batch, C = c.classes;
  std::vector<double> logits = RandomValues(T * N * C, -2, 2, seed), lp(logits.size());
  for (long row = 0; row < T * N; ++row) {
    double s = 0;
    for (long k = 0; k < C; ++k) s += std::exp(logits[row * C + k]);
    for (long k = 0; k < C; ++k) lp[row * C + k] = logits[row * C + k] - std::log(s);
  }
  lp = RoundTrip(lp, c.type);
  long max_s = 0;
  for (const auto& l : c.labels) max_s = std::max(max_s, static_cast<long>(l.size()));
  std::vector<double> targets, tlen, ilen;
  for (long n = 0; n < N; ++n) {
    for (long j = 0; j < (c.concatenated ? static_cast<long>(c.labels[n].size()) : max_s); ++j) {
      targets.push_back(j < static_cast<long>(c.labels[n].size()) ? c.labels[n][j] : 0);
    }
    tlen.push_back(static_cast<double>(c.labels[n].size()));
    ilen.push_back(static_cast<double>(c.input_lengths[n]));
  }
  const long width = 2 * max_s + 1;
  Tensor lpt = UploadAs(lp, {T, N, C}, c.type);
  Tensor tg = c.concatenated ? UploadAs(targets, {static_cast<long>(targets.size())}, kInt64)
                             : UploadAs(targets, {N, max_s}, kInt64);
  Tensor il = UploadAs(ilen, {N}, kInt64), tl = UploadAs(tlen, {N}, kInt64);
  Tensor alpha = MakeOutput({N, T, width}, kFloat), beta = MakeOutput({N, T, width}, kFloat);
  const std::vector<long> loss_sizes = LossSizes({N}, r);
  Tensor loss = MakeOutput(loss_sizes, c.type);
  auto& q = TestQueue();
  CTCLossOption o{0, r, c.zero_infinity};
  q.Enqueue(CTCLoss::Create(q, o, lpt.option(), lpt.storage(), tg.option(), tg.storage(),
                            il.option(), il.storage(), tl.option(), tl.storage(), loss.option(),
                            loss.storage(), alpha.option(), alpha.storage()));
  std::vector<double> nll(N), scaled(N);
  for (long n = 0; n < N; ++n) {
    auto at = [&](long t, long k) { return lp[(t * N + n) * C + k]; };
    nll[n] = Nll(c.labels[n], c.input_lengths[n], 0, at);
    if (c.zero_infinity && std::isinf(nll[n])) nll[n] = 0;
    scaled[n] = nll[n] / std::max(1.0, tlen[n]);
  }
  std::vector<double> want = r == LossReduction::kMean ? Reduce(scaled, r, N) : Reduce(nll, r, N);
  ExpectClose(DownloadAs(loss), RoundTrip(want, c.type), c.type);

  // Gradient: PyTorch's form, exp(lp) g minus the derivative of nll with respect to lp.
  const std::vector<double> go =
      RoundTrip(RandomValues(Count(loss_sizes), 0.5, 2, seed + 1), c.type);
  Tensor gout = UploadAs(go, loss_sizes, c.type), nlt = UploadAs(nll, {N}, c.type);
  Tensor gi = MakeOutput({T, N, C}, c.type);
  q.Enqueue(CTCLossBackward::Create(q, CTCLossBackwardOption{o}, gout.option(), gout.storage(),
                                    lpt.option(), lpt.storage(), tg.option(), tg.storage(),
                                    il.option(), il.storage(), tl.option(), tl.storage(),
                                    nlt.option(), nlt.storage(), alpha.option(), alpha.storage(),
                                    gi.option(), gi.storage(), beta.option(), beta.storage()));
  const std::vector<double> got = DownloadAs(gi);
  const double h = 1e-4;
  for (long n = 0; n < N; ++n) {
    double g = r == LossReduction::kNone ? go[n] : go[0];
    if (r == LossReduction::kMean) g /= std::max(1.0, tlen[n]) * N;
    const bool zero =
        c.zero_infinity && std::isinf(Nll(c.labels[n], c.input_lengths[n], 0,
                                          [&](long t, long k) { return lp[(t * N + n) * C + k]; }));
    for (long t = 0; t < T; ++t) {
      for (long k = 0; k < C; ++k) {
        const long e = (t * N + n) * C + k;
        double w = 0;
        if (t < c.input_lengths[n] && !zero) {
          auto shifted = [&](double d) {
            return Nll(c.labels[n], c.input_lengths[n], 0, [&](long tt, long kk) {
              return lp[(tt * N + n) * C + kk] + (tt == t && kk == k ? d : 0.0);
            });
          };
          w = g * (std::exp(lp[e]) + (shifted(h) - shifted(-h)) / (2 * h));
        }
        if (std::isnan(w)) {  // an infinite loss without zero_infinity, as PyTorch
          EXPECT_TRUE(std::isnan(got[e])) << "n " << n << " t " << t << " c " << k;
          continue;
        }
        EXPECT_NEAR(got[e], w, (c.type == kHalf ? 2e-2 : 2e-3) * (1 + std::fabs(w)))
            << "n " << n << " t " << t << " c " << k;
      }
    }
  }
}

TEST(ClCtcLossTest, LossAndGradient) {
  unsigned seed = 2400;
  const CtcCase padded{12, 3, 5, {{1, 1, 2, 3}, {4, 2}, {3, 3, 3}}, {12, 9, 7}};
  CtcCase concatenated = padded;
  concatenated.concatenated = true;
  concatenated.input_lengths = {11, 12, 8};
  for (LossReduction r : kAllReductions) {
    RunCtcCase(padded, r, seed++);
    RunCtcCase(concatenated, r, seed++);
  }
}

TEST(ClCtcLossTest, TooShortInputsAndHalf) {
  unsigned seed = 2500;
  // The second sample needs 5 steps for its target (a repeated label) but has 4.
  CtcCase c{6, 3, 4, {{2, 3}, {1, 1, 2, 3}, {}}, {6, 4, 5}};
  for (bool zero : {false, true}) {
    c.zero_infinity = zero;
    RunCtcCase(c, LossReduction::kNone, seed++);
  }
  c.zero_infinity = true;
  RunCtcCase(c, LossReduction::kMean, seed++);
  CtcCase h{8, 2, 6, {{5, 1, 5}, {2}}, {8, 6}};
  h.type = kHalf;
  RunCtcCase(h, LossReduction::kSum, seed++);
}

TEST(ClCtcLossTest, BadArguments) {
  Tensor lp = UploadAs(RandomValues(24, -2, -1, 3), {4, 2, 3}, kFloat);
  Tensor tg = UploadAs({1, 2, 1, 1}, {2, 2}, kInt64), tgf = UploadAs({1, 2, 1, 1}, {2, 2}, kFloat);
  Tensor len = UploadAs({4, 4}, {2}, kInt64), len3 = UploadAs({4, 4, 4}, {3}, kInt64);
  Tensor loss = MakeOutput({1}, kFloat), alpha = MakeOutput({2, 4, 5}, kFloat);
  auto& q = TestQueue();
  auto create = [&](const CTCLossOption& o, Tensor& t, Tensor& il) {
    return CTCLoss::Create(q, o, lp.option(), lp.storage(), t.option(), t.storage(), il.option(),
                           il.storage(), len.option(), len.storage(), loss.option(), loss.storage(),
                           alpha.option(), alpha.storage());
  };
  EXPECT_THROW(create(CTCLossOption{3}, tg, len), std::out_of_range);
  EXPECT_THROW(create(CTCLossOption{}, tgf, len), std::invalid_argument);
  EXPECT_THROW(create(CTCLossOption{}, tg, len3), std::runtime_error);
  EXPECT_NO_THROW(create(CTCLossOption{}, tg, len));
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
