// Max, average and adaptive pooling (2-D and 3-D) on the OpenCL device
// against double-precision reference loops: odd and even sizes, stride 1 and
// 2, padding, dilation 2, ceil_mode (including the last window starting in
// the padding, which is dropped), batched and unbatched, float and half.

#include "nerva/platform/cl/pool/pool_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

void RunMaxPool(const PoolCase& c, int spatial, bool with_indices, unsigned seed) {
  SCOPED_TRACE(StrCat("max sizes ", Shape(c.sizes), " k ", Shape(c.kernel), " ceil ", c.ceil_mode,
                      " type ", c.type, " indices ", with_indices));
  const Window w = MakeWindow(c, spatial, true);
  const long planes = Planes(c.sizes, spatial);
  const std::vector<long> out_sizes = OutSizes(c.sizes, w.out, spatial);
  const std::vector<double> x = RoundTrip(RandomValues(Count(c.sizes), -4, 4, seed), c.type);
  Tensor input = UploadAs(x, c.sizes, c.type), output = MakeOutput(out_sizes, c.type);
  Tensor indices = MakeOutput(out_sizes, kInt64);
  Kernel kernel;
  if (spatial == 2) {
    const MaxPool2DOption o{c.kernel, c.stride, c.padding, c.dilation, c.ceil_mode};
    kernel = with_indices ? MaxPool2D::Create(TestQueue(), o, input.option(), input.storage(),
                                              output.option(), output.storage(), indices.option(),
                                              indices.storage())
                          : MaxPool2D::Create(TestQueue(), o, input.option(), input.storage(),
                                              output.option(), output.storage());
  } else {
    const MaxPool3DOption o{c.kernel, c.stride, c.padding, c.dilation, c.ceil_mode};
    kernel = with_indices ? MaxPool3D::Create(TestQueue(), o, input.option(), input.storage(),
                                              output.option(), output.storage(), indices.option(),
                                              indices.storage())
                          : MaxPool3D::Create(TestQueue(), o, input.option(), input.storage(),
                                              output.option(), output.storage());
  }
  TestQueue().Enqueue(kernel);
  std::vector<double> want, want_index;
  RefMaxPool(x, planes, w, &want, &want_index);
  ExpectNear(DownloadAs(output), want, 0, "output");
  if (with_indices) ExpectNear(DownloadAs(indices), want_index, 0, "indices");
}

void RunAvgPool(const PoolCase& c, int spatial, unsigned seed) {
  SCOPED_TRACE(StrCat("avg sizes ", Shape(c.sizes), " k ", Shape(c.kernel), " ceil ", c.ceil_mode,
                      " include_pad ", c.count_include_pad, " divisor ", c.divisor, " type ",
                      c.type));
  const Window w = MakeWindow(c, spatial, false);
  const long planes = Planes(c.sizes, spatial);
  const std::vector<double> x = RoundTrip(RandomValues(Count(c.sizes), -4, 4, seed), c.type);
  Tensor input = UploadAs(x, c.sizes, c.type);
  Tensor output = MakeOutput(OutSizes(c.sizes, w.out, spatial), c.type);
  Kernel kernel;
  if (spatial == 2) {
    const AvgPool2DOption o{c.kernel, c.stride, c.padding, c.ceil_mode, c.count_include_pad,
                            c.divisor};
    kernel = AvgPool2D::Create(TestQueue(), o, input.option(), input.storage(), output.option(),
                               output.storage());
  } else {
    const AvgPool3DOption o{c.kernel, c.stride, c.padding, c.ceil_mode, c.count_include_pad,
                            c.divisor};
    kernel = AvgPool3D::Create(TestQueue(), o, input.option(), input.storage(), output.option(),
                               output.storage());
  }
  TestQueue().Enqueue(kernel);
  ExpectNear(DownloadAs(output), RefAvgPool(x, planes, w, c), Tol(c.type), "output");
}

const std::vector<PoolCase> kMax2D = {
    {{1, 3, 7, 9}, {3, 3}, {2, 2}, {1, 1}, {1, 1}},
    {{2, 2, 8, 8}, {2, 2}, {}, {0, 0}, {1, 1}},
    {{3, 6, 7}, {3, 2}, {1, 1}, {1, 1}, {2, 2}},                  // unbatched, dilation 2
    {{1, 2, 5, 5}, {2, 2}, {2, 2}, {1, 1}, {1, 1}, true},         // last window in padding dropped
    {{1, 2, 6, 7}, {3, 3}, {2, 2}, {1, 1}, {1, 1}, true},         // partial last window kept
    {{2, 3, 9, 7}, {3, 3}, {2, 2}, {1, 1}, {2, 1}, true, kHalf},  // half, dilation 2
    {{1, 1, 1, 1}, {1}, {1}, {0}, {1}},
    // Rows of 8 or more outputs: vector blocks, the overlapping last block,
    // padded border blocks, strides 1, 2 and 3.
    {{1, 2, 5, 37}, {3, 3}, {2, 2}, {1, 1}, {1, 1}},
    {{2, 4, 20}, {3, 3}, {1, 1}, {0, 0}, {1, 2}},
    {{1, 2, 3, 41}, {2, 3}, {1, 3}, {0, 1}, {1, 1}, true},
    {{1, 3, 6, 33}, {3, 3}, {2, 2}, {1, 1}, {1, 1}, true, kHalf},
    // Rows of 16 or more outputs (CPU devices walk whole rows in vectors of
    // 16): stride 2 with 2- and 3-wide windows, odd and even widths, padding,
    // ceil_mode, dilation 2 in either dimension, stride 1, half.
    {{2, 3, 9, 71}, {3, 3}, {2, 2}, {1, 1}, {1, 1}},
    {{1, 2, 7, 70}, {3, 3}, {2, 2}, {0, 0}, {2, 1}, true},
    {{1, 2, 5, 66}, {2, 2}, {2, 2}, {0, 0}, {1, 1}},
    {{3, 4, 67}, {3, 3}, {2, 2}, {1, 1}, {1, 2}, true},
    {{1, 2, 6, 35}, {3, 3}, {1, 1}, {1, 1}, {1, 1}},
    {{1, 2, 4, 53}, {2, 5}, {1, 1}, {1, 2}, {1, 2}, true, kHalf},
    {{2, 2, 7, 97}, {3, 3}, {2, 2}, {1, 1}, {1, 1}, true, kHalf},
    {{2, 40, 5, 37}, {3, 3}, {2, 2}, {1, 1}, {1, 1}},  // 64+ planes: a plane per work item
};

TEST(ClMaxPool, TwoD) {
  unsigned seed = 10;
  for (const auto& c : kMax2D) {
    RunMaxPool(c, 2, false, seed++);
    RunMaxPool(c, 2, true, seed++);
  }
}

TEST(ClMaxPool, TwoDGpuProgram) {
  GpuPathsForTesting gpu;
  unsigned seed = 70;
  for (const auto& c : kMax2D) {
    RunMaxPool(c, 2, seed % 2 == 1, seed);
    ++seed;
  }
}

TEST(ClMaxPool, ThreeD) {
  const std::vector<PoolCase> cases = {
      {{1, 2, 5, 6, 7}, {3, 3, 3}, {2, 2, 2}, {1, 1, 1}, {1, 1, 1}},
      {{2, 4, 5, 5}, {2, 3, 2}, {1, 2, 1}, {1, 1, 1}, {2, 1, 2}, true},  // unbatched
      {{1, 2, 4, 5, 3}, {2, 2, 2}, {2, 2, 2}, {1, 1, 1}, {1, 1, 1}, true, kHalf},
  };
  unsigned seed = 40;
  for (const auto& c : cases) {
    RunMaxPool(c, 3, false, seed++);
    RunMaxPool(c, 3, true, seed++);
  }
}

TEST(ClMaxPool, NanWinsAndInt32Indices) {
  std::vector<double> x = {1, 5, NAN, 2, 3, 4, 9, 0, 7};
  Tensor input = UploadAs(x, {1, 3, 3}, kFloat), output = MakeOutput({1, 2, 2}, kFloat);
  Tensor indices = MakeOutput({1, 2, 2}, kInt32);
  TestQueue().Enqueue(MaxPool2D::Create(TestQueue(), MaxPool2DOption{{2}, {1}}, input.option(),
                                        input.storage(), output.option(), output.storage(),
                                        indices.option(), indices.storage()));
  const std::vector<double> got = DownloadAs(output);
  EXPECT_EQ(got[0], 5);
  EXPECT_TRUE(std::isnan(got[1]));
  EXPECT_EQ(got[2], 9);
  EXPECT_EQ(DownloadAs(indices), (std::vector<double>{1, 2, 6, 8}));
}

void CheckMaxPoolNan(const PoolCase& c, const std::vector<long>& nan_at) {
  const Window w = MakeWindow(c, 2, true);
  std::vector<double> x = RoundTrip(RandomValues(Count(c.sizes), -4, 4, 55), kFloat);
  for (long i : nan_at) x[i] = NAN;
  x[3] = INFINITY, x[c.sizes.back() + 3] = -INFINITY;  // one column: inf - inf is NaN
  std::vector<double> want, want_index;
  RefMaxPool(x, Planes(c.sizes, 2), w, &want, &want_index);
  for (bool with_indices : {false, true}) {
    const std::vector<long> out_sizes = OutSizes(c.sizes, w.out, 2);
    Tensor input = UploadAs(x, c.sizes, kFloat), output = MakeOutput(out_sizes, kFloat);
    Tensor indices = MakeOutput(out_sizes, kInt64);
    const MaxPool2DOption o{c.kernel, c.stride, c.padding, c.dilation};
    TestQueue().Enqueue(with_indices
                            ? MaxPool2D::Create(TestQueue(), o, input.option(), input.storage(),
                                                output.option(), output.storage(), indices.option(),
                                                indices.storage())
                            : MaxPool2D::Create(TestQueue(), o, input.option(), input.storage(),
                                                output.option(), output.storage()));
    const std::vector<double> got = DownloadAs(output);
    for (size_t i = 0; i < got.size(); ++i) {
      EXPECT_EQ(std::isnan(got[i]), std::isnan(want[i])) << i;
      if (!std::isnan(want[i])) {
        EXPECT_EQ(got[i], want[i]) << i;
      }
    }
    if (with_indices) {
      EXPECT_EQ(DownloadAs(indices), want_index);
    }
  }
}

TEST(ClMaxPool, NanInVectorBlocks) {
  CheckMaxPoolNan({{1, 3, 20}, {2, 2}, {1, 1}, {0, 0}, {1, 1}}, {29});  // row 1, column 9
  // Rows of 16 or more outputs, stride 2: NaN inside a vector of outputs,
  // at the column a 3-wide window shares with the next vector, and in the
  // last column; inf and -inf beside them.
  CheckMaxPoolNan({{2, 5, 71}, {3, 3}, {2, 2}, {1, 1}, {1, 1}}, {71 + 9, 2 * 71 + 32, 355 + 70});
  CheckMaxPoolNan({{1, 4, 66}, {2, 2}, {2, 2}, {0, 0}, {1, 1}}, {66 + 31});
}

TEST(ClAvgPool, TwoD) {
  std::vector<PoolCase> cases = {
      {{1, 3, 7, 9}, {3, 3}, {2, 2}, {1, 1}},
      {{2, 2, 8, 8}, {2, 2}, {}, {0, 0}},
      {{3, 6, 7}, {3, 2}, {1, 1}, {1, 1}},
      {{1, 2, 5, 5}, {2, 2}, {2, 2}, {1, 1}, {}, true},
      {{1, 2, 6, 7}, {3, 3}, {2, 2}, {1, 1}, {}, true},
      {{2, 3, 9, 7}, {3, 3}, {2, 2}, {1, 1}, {}, true, kHalf},
  };
  unsigned seed = 60;
  for (auto c : cases) {
    RunAvgPool(c, 2, seed++);
    c.count_include_pad = false;
    RunAvgPool(c, 2, seed++);
    c.divisor = 5;
    RunAvgPool(c, 2, seed++);
  }
}

TEST(ClAvgPool, ThreeD) {
  std::vector<PoolCase> cases = {
      {{1, 2, 5, 6, 7}, {3, 3, 3}, {2, 2, 2}, {1, 1, 1}},
      {{2, 4, 5, 5}, {2, 3, 2}, {1, 2, 1}, {1, 1, 1}, {}, true},
      {{1, 2, 4, 5, 3}, {2, 2, 2}, {2, 2, 2}, {1, 1, 1}, {}, true, kHalf},
  };
  unsigned seed = 80;
  for (auto c : cases) {
    RunAvgPool(c, 3, seed++);
    c.count_include_pad = false;
    RunAvgPool(c, 3, seed++);
    c.divisor = -3;
    RunAvgPool(c, 3, seed++);
  }
}

// Adaptive pooling from `in` to `out` sizes; `kind` 0 avg, 1 max, 2 max with indices.
void RunAdaptive(const std::vector<long>& in, const std::vector<long>& out, int spatial, int kind,
                 DataType type, unsigned seed) {
  SCOPED_TRACE(StrCat("adaptive ", kind, " ", Shape(in), " -> ", Shape(out), " type ", type));
  const std::vector<double> x = RoundTrip(RandomValues(Count(in), -4, 4, seed), type);
  Tensor input = UploadAs(x, in, type), output = MakeOutput(out, type);
  Tensor indices = MakeOutput(out, kInt64);
  Kernel kernel;
  if (kind == 0 && spatial == 2) {
    kernel = AdaptiveAvgPool2D::Create(TestQueue(), input.option(), input.storage(),
                                       output.option(), output.storage());
  } else if (kind == 0) {
    kernel = AdaptiveAvgPool3D::Create(TestQueue(), input.option(), input.storage(),
                                       output.option(), output.storage());
  } else if (kind == 1) {
    kernel = AdaptiveMaxPool2D::Create(TestQueue(), input.option(), input.storage(),
                                       output.option(), output.storage());
  } else {
    kernel =
        AdaptiveMaxPool2D::Create(TestQueue(), input.option(), input.storage(), output.option(),
                                  output.storage(), indices.option(), indices.storage());
  }
  TestQueue().Enqueue(kernel);
  const Dims id = ToDims(in, spatial, 1), od = ToDims(out, spatial, 1);
  std::vector<double> want, want_index;
  for (long n = 0; n < Planes(in, spatial); ++n) {
    for (long o = 0; o < Vol(od); ++o) {
      const long oo[3] = {o / (od[1] * od[2]), o / od[2] % od[1], o % od[2]};
      long lo[3], hi[3];
      for (int i = 0; i < 3; ++i)
        lo[i] = AdStart(oo[i], id[i], od[i]), hi[i] = AdEnd(oo[i], id[i], od[i]);
      double sum = 0, best = -INFINITY;
      long best_i = -1;
      for (long a = lo[0]; a < hi[0]; ++a)
        for (long b = lo[1]; b < hi[1]; ++b)
          for (long e = lo[2]; e < hi[2]; ++e) {
            const long flat = (a * id[1] + b) * id[2] + e;
            const double v = x[n * Vol(id) + flat];
            sum += v;
            if (best_i < 0 || v > best) best = v, best_i = flat;
          }
      want.push_back(kind == 0 ? sum / ((hi[0] - lo[0]) * (hi[1] - lo[1]) * (hi[2] - lo[2]))
                               : best);
      want_index.push_back(static_cast<double>(best_i));
    }
  }
  ExpectNear(DownloadAs(output), want, kind == 0 ? Tol(type) : 0, "output");
  if (kind == 2) ExpectNear(DownloadAs(indices), want_index, 0, "indices");
}

TEST(ClAdaptivePool, AvgAndMax2D) {
  unsigned seed = 100;
  for (int kind = 0; kind < 3; ++kind) {
    RunAdaptive({2, 3, 7, 9}, {2, 3, 3, 4}, 2, kind, kFloat, seed++);  // overlapping windows
    RunAdaptive({3, 8, 8}, {3, 4, 4}, 2, kind, kFloat, seed++);        // unbatched, even split
    RunAdaptive({1, 2, 5, 6}, {1, 2, 7, 9}, 2, kind, kFloat, seed++);  // output larger
    RunAdaptive({2, 5, 7, 7}, {2, 5, 1, 1}, 2, kind, kHalf, seed++);
    RunAdaptive({3, 2, 3}, {3, 1, 1}, 2, kind, kFloat, seed++);  // plane shorter than a vector
  }
}

// The GPU programs of a 1 x 1 output: planes staged in local memory (several
// groups, a partial last one) and larger planes reduced by a group each.
TEST(ClAdaptivePool, GlobalAverageGpuPrograms) {
  GpuPathsForTesting gpu;
  RunAdaptive({3, 50, 7, 7}, {3, 50, 1, 1}, 2, 0, kFloat, 130);
  RunAdaptive({2, 5, 3, 1}, {2, 5, 1, 1}, 2, 0, kHalf, 131);
  RunAdaptive({2, 3, 13, 11}, {2, 3, 1, 1}, 2, 0, kFloat, 132);
  RunAdaptive({1, 2, 37, 41}, {1, 2, 1, 1}, 2, 0, kHalf, 133);
  RunAdaptive({2, 3, 7, 9}, {2, 3, 3, 4}, 2, 0, kFloat, 134);  // not 1 x 1: the common program
}

TEST(ClAdaptivePool, Avg3D) {
  RunAdaptive({1, 2, 5, 7, 6}, {1, 2, 2, 3, 4}, 3, 0, kFloat, 120);
  RunAdaptive({3, 4, 4, 5}, {3, 3, 2, 5}, 3, 0, kHalf, 121);
  RunAdaptive({2, 3, 4, 5, 3}, {2, 3, 1, 1, 1}, 3, 0, kFloat, 122);
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
