#pragma once

// Double-precision host attention for the attention tests: scores, softmax,
// outputs and the gradients, on dense [B, H, L, *] arrays.

#include <cmath>
#include <limits>
#include <vector>

#include "nerva/platform/cl/norm/norm_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
// Each family's helpers get their own link names: every family links into
// one test binary, and same-named helpers must not replace each other.
inline namespace attention_util {

struct HostAttention {
  long B = 1, H = 1, Hk = 1, L = 1, S = 1, E = 1, Ev = 1;
  double scale = 1.0;
  bool causal = false;
  long causal_offset = 0;
  std::vector<double> bias = {};  // [B, H, L, S] added to the scores (-inf drops), or empty
  std::vector<double> keep = {};  // [B, H, L, S] dropout factors (0 or 1 / (1 - p)), or empty

  long Q(long b, long h, long i) const { return (b * H + h) * L + i; }
  long K(long b, long h, long j) const { return (b * Hk + h / (H / Hk)) * S + j; }
  long Score(long b, long h, long i, long j) const { return Q(b, h, i) * S + j; }

  // Scores and probabilities [B, H, L, S] (before dropout), logsumexp [B, H, L].
  void Softmax(const std::vector<double>& q, const std::vector<double>& k, std::vector<double>* p,
               std::vector<double>* lse) const {
    p->assign(B * H * L * S, 0.0);
    lse->assign(B * H * L, 0.0);
    for (long b = 0; b < B; ++b)
      for (long h = 0; h < H; ++h)
        for (long i = 0; i < L; ++i) {
          std::vector<double> s(S, -INFINITY);
          double m = -INFINITY;
          for (long j = 0; j < S; ++j) {
            if (causal && j > i + causal_offset) continue;
            double dot = 0;
            for (long e = 0; e < E; ++e) dot += q[Q(b, h, i) * E + e] * k[K(b, h, j) * E + e];
            s[j] = dot * scale + (bias.empty() ? 0.0 : bias[Score(b, h, i, j)]);
            m = std::max(m, s[j]);
          }
          double sum = 0;
          for (long j = 0; j < S; ++j) sum += s[j] == -INFINITY ? 0.0 : std::exp(s[j] - m);
          for (long j = 0; j < S; ++j) {
            (*p)[Score(b, h, i, j)] = s[j] == -INFINITY ? 0.0 : std::exp(s[j] - m) / sum;
          }
          (*lse)[Q(b, h, i)] = m + std::log(sum);
        }
  }

  double Keep(long idx) const { return keep.empty() ? 1.0 : keep[idx]; }

  // out [B, H, L, Ev] = (P * keep) V.
  std::vector<double> Output(const std::vector<double>& p, const std::vector<double>& v) const {
    std::vector<double> out(B * H * L * Ev, 0.0);
    for (long b = 0; b < B; ++b)
      for (long h = 0; h < H; ++h)
        for (long i = 0; i < L; ++i)
          for (long j = 0; j < S; ++j) {
            const double w = p[Score(b, h, i, j)] * Keep(Score(b, h, i, j));
            for (long e = 0; e < Ev; ++e) out[Q(b, h, i) * Ev + e] += w * v[K(b, h, j) * Ev + e];
          }
    return out;
  }

  // Gradients of query, key, value and the (additive) scores from dout.
  void Backward(const std::vector<double>& q, const std::vector<double>& k,
                const std::vector<double>& v, const std::vector<double>& p,
                const std::vector<double>& dout, std::vector<double>* dq, std::vector<double>* dk,
                std::vector<double>* dv, std::vector<double>* ds) const {
    dq->assign(q.size(), 0.0);
    dk->assign(k.size(), 0.0);
    dv->assign(v.size(), 0.0);
    ds->assign(p.size(), 0.0);
    for (long b = 0; b < B; ++b)
      for (long h = 0; h < H; ++h)
        for (long i = 0; i < L; ++i) {
          std::vector<double> dp(S, 0.0);
          double delta = 0;
          for (long j = 0; j < S; ++j) {
            double g = 0;
            for (long e = 0; e < Ev; ++e) g += dout[Q(b, h, i) * Ev + e] * v[K(b, h, j) * Ev + e];
            dp[j] = g * Keep(Score(b, h, i, j));
            delta += p[Score(b, h, i, j)] * dp[j];
          }
          for (long j = 0; j < S; ++j) {
            const long idx = Score(b, h, i, j);
            const double d = p[idx] * (dp[j] - delta);
            (*ds)[idx] = d;
            for (long e = 0; e < E; ++e) {
              (*dq)[Q(b, h, i) * E + e] += d * scale * k[K(b, h, j) * E + e];
              (*dk)[K(b, h, j) * E + e] += d * scale * q[Q(b, h, i) * E + e];
            }
            for (long e = 0; e < Ev; ++e) {
              (*dv)[K(b, h, j) * Ev + e] += p[idx] * Keep(idx) * dout[Q(b, h, i) * Ev + e];
            }
          }
        }
  }
};

}  // namespace attention_util
}  // namespace testing
}  // namespace cl
}  // namespace nerva
