// Pooling gradients on the OpenCL device against scatter-form references:
// overlapping windows (stride below kernel), padding, dilation 2, ceil_mode,
// batched and unbatched, float and half; max-pool gradients take the indices
// the device forward wrote.

#include "nerva/platform/cl/pool/pool_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

void RunAvgGrad(const PoolCase& c, int spatial, unsigned seed) {
  SCOPED_TRACE(StrCat("avg grad ", Shape(c.sizes), " k ", Shape(c.kernel), " ceil ", c.ceil_mode,
                      " include_pad ", c.count_include_pad, " divisor ", c.divisor, " ", c.type));
  const Window w = MakeWindow(c, spatial, false);
  const long planes = Planes(c.sizes, spatial);
  const std::vector<long> out_sizes = OutSizes(c.sizes, w.out, spatial);
  const std::vector<double> g = RoundTrip(RandomValues(Count(out_sizes), -2, 2, seed), c.type);
  Tensor grad_out = UploadAs(g, out_sizes, c.type), grad_in = MakeOutput(c.sizes, c.type);
  Kernel kernel;
  if (spatial == 2) {
    AvgPool2DBackwardOption o;
    o.kernel_size = c.kernel, o.stride = c.stride, o.padding = c.padding;
    o.ceil_mode = c.ceil_mode, o.count_include_pad = c.count_include_pad;
    o.divisor_override = c.divisor;
    kernel = AvgPool2DBackward::Create(TestQueue(), o, grad_out.option(), grad_out.storage(),
                                       grad_in.option(), grad_in.storage());
  } else {
    AvgPool3DBackwardOption o;
    o.kernel_size = c.kernel, o.stride = c.stride, o.padding = c.padding;
    o.ceil_mode = c.ceil_mode, o.count_include_pad = c.count_include_pad;
    o.divisor_override = c.divisor;
    kernel = AvgPool3DBackward::Create(TestQueue(), o, grad_out.option(), grad_out.storage(),
                                       grad_in.option(), grad_in.storage());
  }
  TestQueue().Enqueue(kernel);
  ExpectNear(DownloadAs(grad_in), RefAvgPoolGrad(g, planes, w, c), Tol(c.type), "grad_input");
}

TEST(ClPoolBackward, AvgPool) {
  std::vector<PoolCase> cases2 = {
      {{1, 3, 7, 9}, {3, 3}, {1, 2}, {1, 1}},  // overlapping
      {{2, 2, 8, 8}, {2, 2}, {}, {0, 0}},
      {{3, 6, 7}, {3, 2}, {2, 1}, {1, 1}, {}, true},
      {{1, 2, 5, 5}, {2, 2}, {2, 2}, {1, 1}, {}, true, kHalf},
  };
  unsigned seed = 200;
  for (auto c : cases2) {
    RunAvgGrad(c, 2, seed++);
    c.count_include_pad = false;
    RunAvgGrad(c, 2, seed++);
    c.divisor = 7;
    RunAvgGrad(c, 2, seed++);
  }
  std::vector<PoolCase> cases3 = {
      {{1, 2, 5, 6, 7}, {3, 3, 3}, {1, 2, 2}, {1, 1, 1}},
      {{2, 4, 5, 5}, {2, 3, 2}, {1, 2, 1}, {1, 1, 1}, {}, true, kHalf},
  };
  for (auto c : cases3) {
    RunAvgGrad(c, 3, seed++);
    c.count_include_pad = false;
    RunAvgGrad(c, 3, seed++);
  }
}

// Forward with indices on the device, then the gradient from those indices.
void RunMaxGrad(const PoolCase& c, int spatial, unsigned seed) {
  SCOPED_TRACE(StrCat("max grad ", Shape(c.sizes), " k ", Shape(c.kernel), " ceil ", c.ceil_mode,
                      " ", c.type));
  const Window w = MakeWindow(c, spatial, true);
  const long planes = Planes(c.sizes, spatial);
  const std::vector<long> out_sizes = OutSizes(c.sizes, w.out, spatial);
  // Few distinct values, so that one element is the maximum of several windows.
  const std::vector<double> x = RandomValues(Count(c.sizes), -3, 3, seed, true);
  const std::vector<double> g = RoundTrip(RandomValues(Count(out_sizes), -2, 2, seed + 1), c.type);
  Tensor input = UploadAs(x, c.sizes, c.type), output = MakeOutput(out_sizes, c.type);
  Tensor indices = MakeOutput(out_sizes, kInt64);
  Tensor grad_out = UploadAs(g, out_sizes, c.type), grad_in = MakeOutput(c.sizes, c.type);
  Kernel forward, backward;
  if (spatial == 2) {
    MaxPool2DWithIndicesBackwardOption o;
    o.kernel_size = c.kernel, o.stride = c.stride, o.padding = c.padding;
    o.dilation = c.dilation, o.ceil_mode = c.ceil_mode;
    forward = MaxPool2D::Create(TestQueue(), o, input.option(), input.storage(), output.option(),
                                output.storage(), indices.option(), indices.storage());
    backward = MaxPool2DWithIndicesBackward::Create(
        TestQueue(), o, grad_out.option(), grad_out.storage(), indices.option(), indices.storage(),
        grad_in.option(), grad_in.storage());
  } else {
    MaxPool3DWithIndicesBackwardOption o;
    o.kernel_size = c.kernel, o.stride = c.stride, o.padding = c.padding;
    o.dilation = c.dilation, o.ceil_mode = c.ceil_mode;
    forward = MaxPool3D::Create(TestQueue(), o, input.option(), input.storage(), output.option(),
                                output.storage(), indices.option(), indices.storage());
    backward = MaxPool3DWithIndicesBackward::Create(
        TestQueue(), o, grad_out.option(), grad_out.storage(), indices.option(), indices.storage(),
        grad_in.option(), grad_in.storage());
  }
  TestQueue().Enqueue(forward);
  TestQueue().Enqueue(backward);
  std::vector<double> values, index;
  RefMaxPool(x, planes, w, &values, &index);
  std::vector<double> want(Count(c.sizes), 0.0);
  for (long n = 0; n < planes; ++n) {
    for (long o = 0; o < Vol(w.out); ++o) {
      const long at = n * Vol(w.out) + o;
      want[n * Vol(w.in) + static_cast<long>(index[at])] += g[at];
    }
  }
  ExpectNear(DownloadAs(grad_in), want, Tol(c.type), "grad_input");
}

TEST(ClPoolBackward, MaxPool) {
  const std::vector<PoolCase> cases2 = {
      {{1, 3, 7, 9}, {3, 3}, {1, 2}, {1, 1}, {1, 1}},
      {{2, 2, 8, 8}, {2, 2}, {}, {0, 0}, {1, 1}},
      {{3, 9, 7}, {3, 2}, {1, 1}, {1, 1}, {2, 2}, true},
      {{2, 3, 9, 7}, {3, 3}, {2, 1}, {1, 1}, {2, 1}, true, kHalf},
  };
  unsigned seed = 300;
  for (const auto& c : cases2) RunMaxGrad(c, 2, seed += 2);
  const std::vector<PoolCase> cases3 = {
      {{1, 2, 5, 6, 7}, {3, 3, 3}, {1, 2, 2}, {1, 1, 1}, {1, 1, 1}},
      {{2, 5, 6, 5}, {2, 3, 2}, {1, 2, 1}, {1, 1, 1}, {2, 1, 2}, true, kHalf},
  };
  for (const auto& c : cases3) RunMaxGrad(c, 3, seed += 2);
}

void RunAdaptiveGrad(const std::vector<long>& in, const std::vector<long>& out, int spatial,
                     DataType type, unsigned seed) {
  SCOPED_TRACE(StrCat("adaptive grad ", Shape(in), " <- ", Shape(out), " ", type));
  const std::vector<double> g = RoundTrip(RandomValues(Count(out), -2, 2, seed), type);
  Tensor grad_out = UploadAs(g, out, type), grad_in = MakeOutput(in, type);
  TestQueue().Enqueue(
      spatial == 2
          ? AdaptiveAvgPool2DBackward::Create(TestQueue(), grad_out.option(), grad_out.storage(),
                                              grad_in.option(), grad_in.storage())
          : AdaptiveAvgPool3DBackward::Create(TestQueue(), grad_out.option(), grad_out.storage(),
                                              grad_in.option(), grad_in.storage()));
  const Dims id = ToDims(in, spatial, 1), od = ToDims(out, spatial, 1);
  std::vector<double> want(Count(in), 0.0);
  for (long n = 0; n < Planes(in, spatial); ++n) {
    for (long o = 0; o < Vol(od); ++o) {
      const long oo[3] = {o / (od[1] * od[2]), o / od[2] % od[1], o % od[2]};
      long lo[3], hi[3];
      for (int i = 0; i < 3; ++i) {
        lo[i] = AdStart(oo[i], id[i], od[i]), hi[i] = AdEnd(oo[i], id[i], od[i]);
      }
      const double share =
          g[n * Vol(od) + o] / ((hi[0] - lo[0]) * (hi[1] - lo[1]) * (hi[2] - lo[2]));
      for (long a = lo[0]; a < hi[0]; ++a)
        for (long b = lo[1]; b < hi[1]; ++b)
          for (long e = lo[2]; e < hi[2]; ++e)
            want[n * Vol(id) + (a * id[1] + b) * id[2] + e] += share;
    }
  }
  ExpectNear(DownloadAs(grad_in), want, Tol(type), "grad_input");
}

TEST(ClPoolBackward, AdaptiveAvgPool) {
  RunAdaptiveGrad({2, 3, 7, 9}, {2, 3, 3, 4}, 2, kFloat, 400);  // overlapping windows
  RunAdaptiveGrad({3, 5, 6}, {3, 7, 9}, 2, kFloat, 401);        // unbatched, output larger
  RunAdaptiveGrad({2, 5, 7, 7}, {2, 5, 1, 1}, 2, kHalf, 402);
  RunAdaptiveGrad({1, 2, 5, 7, 6}, {1, 2, 2, 3, 4}, 3, kFloat, 403);
  RunAdaptiveGrad({3, 4, 4, 5}, {3, 3, 2, 5}, 3, kHalf, 404);
}

// torch's nearest source index, in float as torch computes it.
long NearestSource(long o, long in, long out, double scale_factor) {
  if (out == in) return o;
  if (out == 2 * in) return o / 2;
  const float scale = scale_factor > 0 ? static_cast<float>(1.0 / scale_factor)
                                       : static_cast<float>(in) / static_cast<float>(out);
  return std::min(static_cast<long>(std::floor(static_cast<float>(o) * scale)), in - 1);
}

TEST(ClPoolBackward, UpsampleNearest2d) {
  struct Case {
    std::vector<long> in, out;
    double sh, sw;
    DataType type;
  };
  const std::vector<Case> cases = {
      {{2, 3, 4, 5}, {2, 3, 8, 10}, 0, 0, kFloat},        // doubled
      {{1, 2, 5, 7}, {1, 2, 13, 9}, 0, 0, kFloat},        // odd ratios
      {{3, 6, 7}, {3, 4, 3}, 0, 0, kFloat},               // downsampled, unbatched
      {{1, 2, 4, 5}, {1, 2, 11, 12}, 2.75, 2.5, kFloat},  // given scale factors
      {{2, 3, 5, 5}, {2, 3, 15, 7}, 0, 0, kHalf},
  };
  unsigned seed = 500;
  for (const auto& c : cases) {
    SCOPED_TRACE(StrCat("upsample grad ", Shape(c.in), " <- ", Shape(c.out)));
    const std::vector<double> g = RoundTrip(RandomValues(Count(c.out), -2, 2, seed++), c.type);
    Tensor grad_out = UploadAs(g, c.out, c.type), grad_in = MakeOutput(c.in, c.type);
    TestQueue().Enqueue(UpsampleNearest2dBackward::Create(
        TestQueue(), UpsampleNearest2dBackwardOption{c.sh, c.sw}, grad_out.option(),
        grad_out.storage(), grad_in.option(), grad_in.storage()));
    const size_t r = c.in.size();
    const long ih = c.in[r - 2], iw = c.in[r - 1], oh = c.out[r - 2], ow = c.out[r - 1];
    std::vector<double> want(Count(c.in), 0.0);
    for (long n = 0; n < Planes(c.in, 2); ++n)
      for (long y = 0; y < oh; ++y)
        for (long x = 0; x < ow; ++x)
          want[n * ih * iw + NearestSource(y, ih, oh, c.sh) * iw +
               NearestSource(x, iw, ow, c.sw)] += g[(n * oh + y) * ow + x];
    ExpectNear(DownloadAs(grad_in), want, Tol(c.type), "grad_input");
  }
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
