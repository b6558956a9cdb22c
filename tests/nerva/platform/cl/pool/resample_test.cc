// Im2col, Col2im and Resize on the OpenCL device against double-precision
// reference loops: odd and even images, stride 1 and 2, padding, dilation 2,
// overlapping blocks, every interpolation mode with align_corners both ways
// and given scale factors, float and half.

#include "nerva/platform/cl/pool/pool_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

struct BlockCase {
  std::vector<long> image;  // (N, C, H, W) or (C, H, W)
  long k[2], d[2], p[2], s[2];
  DataType type = kFloat;
};

const std::vector<BlockCase> kBlocks = {
    {{2, 3, 7, 9}, {3, 3}, {1, 1}, {1, 1}, {1, 1}},
    {{3, 8, 6}, {2, 3}, {2, 1}, {0, 1}, {2, 2}},  // unbatched, dilation 2
    {{1, 2, 9, 8}, {3, 2}, {2, 2}, {2, 1}, {1, 2}},
    {{1, 2, 5, 5}, {2, 2}, {1, 1}, {0, 0}, {1, 1}, kHalf},
    {{1, 2, 4, 29}, {2, 3}, {1, 2}, {1, 2}, {1, 3}},      // rows of 8+ blocks, stride 3
    {{2, 5, 21}, {3, 3}, {1, 1}, {1, 1}, {2, 2}, kHalf},  // rows of 8+ blocks, stride 2
    // Rows of 16+ blocks (CPU devices copy whole rows in vectors of 16):
    // padding 1 and 2, dilation 2 and 3, stride 2 on narrow (31) and wide
    // images, half.
    {{2, 3, 5, 17}, {3, 3}, {1, 1}, {1, 1}, {1, 1}},
    {{1, 2, 6, 40}, {3, 3}, {2, 3}, {2, 2}, {1, 1}},
    {{3, 4, 71}, {2, 3}, {1, 1}, {0, 1}, {2, 2}},
    {{1, 2, 3, 31}, {1, 1}, {1, 1}, {0, 0}, {2, 2}},
    {{1, 3, 4, 33}, {3, 3}, {1, 2}, {1, 2}, {1, 1}, kHalf},
};

long Blocks(long in, long k, long d, long p, long s) {
  return (in + 2 * p - d * (k - 1) - 1) / s + 1;
}

// Every case of kBlocks; `gpu` takes the GPU program.
void RunIm2col(bool gpu) {
  std::optional<GpuPathsForTesting> paths;
  if (gpu) paths.emplace();
  unsigned seed = 600;
  for (const auto& c : kBlocks) {
    SCOPED_TRACE(StrCat("im2col ", Shape(c.image)));
    const size_t r = c.image.size();
    const long H = c.image[r - 2], W = c.image[r - 1], C = c.image[r - 3];
    const long N = r == 4 ? c.image[0] : 1;
    const long bh = Blocks(H, c.k[0], c.d[0], c.p[0], c.s[0]);
    const long bw = Blocks(W, c.k[1], c.d[1], c.p[1], c.s[1]);
    std::vector<long> out = {C * c.k[0] * c.k[1], bh * bw};
    if (r == 4) out.insert(out.begin(), N);
    const std::vector<double> x = RoundTrip(RandomValues(Count(c.image), -3, 3, seed++), c.type);
    Tensor input = UploadAs(x, c.image, c.type), output = MakeOutput(out, c.type);
    const Im2colOption o{{c.k[0], c.k[1]}, {c.d[0], c.d[1]}, {c.p[0], c.p[1]}, {c.s[0], c.s[1]}};
    TestQueue().Enqueue(Im2col::Create(TestQueue(), o, input.option(), input.storage(),
                                       output.option(), output.storage()));
    std::vector<double> want;
    for (long n = 0; n < N; ++n)
      for (long ch = 0; ch < C; ++ch)
        for (long i = 0; i < c.k[0]; ++i)
          for (long j = 0; j < c.k[1]; ++j)
            for (long y = 0; y < bh; ++y)
              for (long z = 0; z < bw; ++z) {
                const long ih = y * c.s[0] - c.p[0] + i * c.d[0];
                const long iw = z * c.s[1] - c.p[1] + j * c.d[1];
                const bool inside = ih >= 0 && ih < H && iw >= 0 && iw < W;
                want.push_back(inside ? x[((n * C + ch) * H + ih) * W + iw] : 0.0);
              }
    ExpectNear(DownloadAs(output), want, 0, "columns");
  }
}

TEST(ClIm2col, AgainstReference) {
  RunIm2col(false);
}
TEST(ClIm2col, GpuProgramAgainstReference) {
  RunIm2col(true);
}

TEST(ClCol2im, AgainstReference) {
  unsigned seed = 700;
  for (const auto& c : kBlocks) {
    SCOPED_TRACE(StrCat("col2im ", Shape(c.image)));
    const size_t r = c.image.size();
    const long H = c.image[r - 2], W = c.image[r - 1], C = c.image[r - 3];
    const long N = r == 4 ? c.image[0] : 1;
    const long bh = Blocks(H, c.k[0], c.d[0], c.p[0], c.s[0]);
    const long bw = Blocks(W, c.k[1], c.d[1], c.p[1], c.s[1]);
    std::vector<long> cols = {C * c.k[0] * c.k[1], bh * bw};
    if (r == 4) cols.insert(cols.begin(), N);
    const std::vector<double> x = RoundTrip(RandomValues(Count(cols), -3, 3, seed++), c.type);
    Tensor input = UploadAs(x, cols, c.type), output = MakeOutput(c.image, c.type);
    const Col2imOption o{
        {H, W}, {c.k[0], c.k[1]}, {c.d[0], c.d[1]}, {c.p[0], c.p[1]}, {c.s[0], c.s[1]}};
    TestQueue().Enqueue(Col2im::Create(TestQueue(), o, input.option(), input.storage(),
                                       output.option(), output.storage()));
    std::vector<double> want(Count(c.image), 0.0);
    long at = 0;
    for (long n = 0; n < N; ++n)
      for (long ch = 0; ch < C; ++ch)
        for (long i = 0; i < c.k[0]; ++i)
          for (long j = 0; j < c.k[1]; ++j)
            for (long y = 0; y < bh; ++y)
              for (long z = 0; z < bw; ++z, ++at) {
                const long ih = y * c.s[0] - c.p[0] + i * c.d[0];
                const long iw = z * c.s[1] - c.p[1] + j * c.d[1];
                if (ih >= 0 && ih < H && iw >= 0 && iw < W) {
                  want[((n * C + ch) * H + ih) * W + iw] += x[at];
                }
              }
    ExpectNear(DownloadAs(output), want, Tol(c.type), "image");
  }
}

// torch interpolate along one dimension, in double: the taps and weights of
// output o.
struct Taps {
  std::vector<long> index;
  std::vector<double> weight;
};

double Cubic1(double x) {
  return ((1.25 * x - 2.25) * x) * x + 1;
}
double Cubic2(double x) {
  return ((-0.75 * x + 3.75) * x - 6) * x + 3;
}

Taps MakeTaps(InterpolateMode mode, long o, long in, long out, double factor, bool align) {
  Taps t;
  const float sizes_scale = static_cast<float>(in) / static_cast<float>(out);
  const float scale = factor > 0 ? static_cast<float>(1.0 / factor) : sizes_scale;
  if (mode == InterpolateMode::kNearest || mode == InterpolateMode::kNearestExact) {
    const bool exact = mode == InterpolateMode::kNearestExact;
    float s = scale;
    if (!exact && out == in) s = 1.0f;
    if (!exact && out == 2 * in) s = 0.5f;
    const float pos = (static_cast<float>(o) + (exact ? 0.5f : 0.0f)) * s;
    t.index = {std::min(static_cast<long>(std::floor(pos)), in - 1)};
    t.weight = {1.0};
    return t;
  }
  if (mode == InterpolateMode::kArea) {
    const long lo = AdStart(o, in, out), hi = AdEnd(o, in, out);
    for (long i = lo; i < hi; ++i) t.index.push_back(i), t.weight.push_back(1.0 / (hi - lo));
    return t;
  }
  const bool cubic = mode == InterpolateMode::kBicubic;
  const double a = align ? (out > 1 ? (in - 1.0) / (out - 1.0) : 0.0) : scale;
  double src = align ? a * o : a * (o + 0.5) - 0.5;
  if (!cubic) {
    src = std::max(src, 0.0);
    const long i0 = std::min(static_cast<long>(src), in - 1);
    const long i1 = std::min(i0 + 1, in - 1);
    const double l = src - i0;
    t.index = {i0, i1};
    t.weight = {1 - l, l};
    return t;
  }
  const long f = static_cast<long>(std::floor(src));
  const double x = src - f;
  const double w[4] = {Cubic2(x + 1), Cubic1(x), Cubic1(1 - x), Cubic2(2 - x)};
  for (int k = 0; k < 4; ++k) {
    t.index.push_back(std::clamp(f - 1 + k, 0L, in - 1));
    t.weight.push_back(w[k]);
  }
  return t;
}

struct ResizeCase {
  std::vector<long> in, out;
  InterpolateMode mode;
  bool align = false;
  std::vector<double> factor = {};
  DataType type = kFloat;
};

void RunResize(const ResizeCase& c, unsigned seed) {
  SCOPED_TRACE(StrCat("resize ", Shape(c.in), " -> ", Shape(c.out), " mode ",
                      static_cast<int>(c.mode), " align ", c.align, " ", c.type));
  const int spatial = static_cast<int>(c.in.size()) - 2;
  const std::vector<double> x = RoundTrip(RandomValues(Count(c.in), -3, 3, seed), c.type);
  Tensor input = UploadAs(x, c.in, c.type), output = MakeOutput(c.out, c.type);
  ResizeOption o;
  o.mode = c.mode, o.align_corners = c.align, o.scale_factor = c.factor;
  TestQueue().Enqueue(Resize::Create(TestQueue(), o, input.option(), input.storage(),
                                     output.option(), output.storage()));
  const Dims id = ToDims(c.in, spatial, 1), od = ToDims(c.out, spatial, 1);
  std::vector<double> want;
  for (long n = 0; n < Planes(c.in, spatial); ++n) {
    for (long o3 = 0; o3 < Vol(od); ++o3) {
      const long oo[3] = {o3 / (od[1] * od[2]), o3 / od[2] % od[1], o3 % od[2]};
      Taps t[3];
      for (int i = 0; i < 3; ++i) {
        const int si = i - (3 - spatial);
        const double f = si < 0 || c.factor.empty() ? 0 : c.factor[c.factor.size() == 1 ? 0 : si];
        t[i] = si < 0 ? Taps{{0}, {1.0}} : MakeTaps(c.mode, oo[i], id[i], od[i], f, c.align);
      }
      double v = 0;
      for (size_t a = 0; a < t[0].index.size(); ++a)
        for (size_t b = 0; b < t[1].index.size(); ++b)
          for (size_t e = 0; e < t[2].index.size(); ++e)
            v += t[0].weight[a] * t[1].weight[b] * t[2].weight[e] *
                 x[n * Vol(id) + (t[0].index[a] * id[1] + t[1].index[b]) * id[2] + t[2].index[e]];
      want.push_back(v);
    }
  }
  ExpectNear(DownloadAs(output), want, c.type == kHalf ? 2e-2 : 1e-4, "output");
}

TEST(ClResize, EveryMode) {
  using M = InterpolateMode;
  const std::vector<ResizeCase> cases = {
      {{2, 3, 5, 7}, {2, 3, 10, 14}, M::kNearest},
      {{1, 2, 5, 7}, {1, 2, 8, 3}, M::kNearest},
      {{1, 2, 4, 5}, {1, 2, 11, 12}, M::kNearest, false, {2.75, 2.5}},
      {{1, 2, 7}, {1, 2, 12}, M::kNearestExact},
      {{1, 2, 3, 4, 5}, {1, 2, 5, 3, 9}, M::kNearest},
      {{2, 3, 5, 7}, {2, 3, 10, 14}, M::kBilinear},
      {{2, 3, 5, 7}, {2, 3, 10, 14}, M::kBilinear, true},
      {{1, 2, 9, 8}, {1, 2, 4, 5}, M::kBilinear},
      {{1, 2, 4, 5}, {1, 2, 11, 12}, M::kBilinear, false, {2.75}},
      {{1, 3, 7}, {1, 3, 11}, M::kLinear},
      {{1, 3, 7}, {1, 3, 1}, M::kLinear, true},
      {{1, 2, 3, 4, 5}, {1, 2, 5, 7, 4}, M::kTrilinear},
      {{1, 2, 3, 4, 5}, {1, 2, 5, 7, 4}, M::kTrilinear, true},
      {{2, 2, 5, 6}, {2, 2, 9, 11}, M::kBicubic},
      {{2, 2, 5, 6}, {2, 2, 9, 11}, M::kBicubic, true},
      {{1, 2, 9, 7}, {1, 2, 4, 3}, M::kArea},
      {{1, 2, 3, 9, 7}, {1, 2, 2, 4, 3}, M::kArea},
      {{2, 3, 5, 7}, {2, 3, 10, 14}, M::kBilinear, false, {}, kHalf},
      {{2, 2, 5, 6}, {2, 2, 9, 11}, M::kBicubic, true, {}, kHalf},
      {{1, 2, 5, 7}, {1, 2, 8, 3}, M::kNearest, false, {}, kHalf},
      // Rows of 8 or more outputs: doubled rows (inside and at both ends),
      // wide gathered rows.
      {{1, 2, 3, 21}, {1, 2, 6, 42}, M::kBilinear},
      {{2, 1, 3, 20}, {2, 1, 6, 40}, M::kBilinear, false, {2.0}, kHalf},
      {{1, 2, 3, 40}, {1, 2, 5, 17}, M::kBilinear},
      {{1, 2, 3, 21}, {1, 2, 6, 42}, M::kBilinear, true},
      {{1, 2, 4, 9}, {1, 2, 3, 30}, M::kNearestExact},
  };
  unsigned seed = 800;
  for (const auto& c : cases) RunResize(c, seed++);
}

// (Bi)linear doubling of the width: CPU devices take whole rows in vectors
// of 16 sources from 18 sources up (17 gathers), with any height scale; the
// GPU program's row blocks run them too.
const std::vector<ResizeCase> kDoubling = {
    {{1, 2, 3, 18}, {1, 2, 6, 36}, InterpolateMode::kBilinear},
    {{2, 1, 3, 37}, {2, 1, 7, 74}, InterpolateMode::kBilinear},
    {{1, 2, 4, 17}, {1, 2, 8, 34}, InterpolateMode::kBilinear},
    {{1, 3, 33}, {1, 3, 66}, InterpolateMode::kLinear},
    {{1, 2, 5, 50}, {1, 2, 7, 100}, InterpolateMode::kBilinear, false, {1.5, 2.0}},
    {{1, 2, 3, 35}, {1, 2, 6, 70}, InterpolateMode::kBilinear, false, {}, kHalf},
};

TEST(ClResize, DoublingRows) {
  unsigned seed = 850;
  for (const auto& c : kDoubling) RunResize(c, seed++);
}

TEST(ClResize, DoublingRowsGpuProgram) {
  GpuPathsForTesting gpu;
  unsigned seed = 870;
  for (const auto& c : kDoubling) RunResize(c, seed++);
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
