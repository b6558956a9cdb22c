// LayerNorm and LayerNormWithTraining on the OpenCL device against a
// double-precision reference: row lengths around the vector width (1, 5,
// 64, 4097), optional weight and bias, saved statistics, constant rows,
// half data and the argument checks.

#include "nerva/platform/cl/norm/norm_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

struct LayerNormCase {
  std::vector<long> sizes;
  size_t norm_rank = 1;
  bool scale = true;
  bool bias = true;
  bool save = false;
  DataType type = kFloat;
  bool constant = false;  // every row holds one value
};

void RunLayerNorm(const LayerNormCase& c, unsigned seed) {
  SCOPED_TRACE(StrCat("sizes ", Shape(c.sizes), " norm rank ", c.norm_rank, " scale ", c.scale,
                      " bias ", c.bias, " save ", c.save, " type ", c.type));
  const std::vector<long> norm(c.sizes.end() - c.norm_rank, c.sizes.end());
  const long n = Count(norm), rows = Count(c.sizes) / n;
  std::vector<double> x = RandomValues(rows * n, -2, 3, seed);
  if (c.constant) {
    for (long i = 0; i < rows * n; ++i) x[i] = 0.25 * static_cast<double>(i / n % 5) - 0.5;
  }
  x = RoundTrip(x, c.type);
  const std::vector<double> w = RoundTrip(RandomValues(n, 0.5, 1.5, seed + 1), c.type);
  const std::vector<double> b = RoundTrip(RandomValues(n, -1, 1, seed + 2), c.type);
  Tensor input = UploadAs(x, c.sizes, c.type);
  Tensor weight = UploadAs(w, norm, c.type);
  Tensor bias = UploadAs(b, norm, c.type);
  Tensor output = MakeOutput(c.sizes, c.type);
  Tensor mean = MakeOutput({rows}, kFloat);
  Tensor rstd = MakeOutput({rows}, kFloat);
  const MaybeTensor mw = c.scale ? Present(weight) : Absent();
  const MaybeTensor mb = c.bias ? Present(bias) : Absent();
  LayerNormOption option{norm, 1e-5f};
  Kernel kernel =
      c.save
          ? LayerNorm::Create(TestQueue(), option, input.option(), input.storage(), mw.option,
                              mw.buffer, mb.option, mb.buffer, output.option(), output.storage(),
                              mean.option(), mean.storage(), rstd.option(), rstd.storage())
          : LayerNorm::Create(TestQueue(), option, input.option(), input.storage(), mw.option,
                              mw.buffer, mb.option, mb.buffer, output.option(), output.storage());
  TestQueue().Enqueue(kernel);

  std::vector<double> want(x.size()), want_mean(rows), want_rstd(rows);
  for (long r = 0; r < rows; ++r) {
    const Stats st = RunStats(x, r * n, 1, 0, n, 1e-5);
    want_mean[r] = st.mean;
    want_rstd[r] = st.rstd;
    for (long k = 0; k < n; ++k) {
      want[r * n + k] =
          (x[r * n + k] - st.mean) * st.rstd * (c.scale ? w[k] : 1.0) + (c.bias ? b[k] : 0.0);
    }
  }
  const bool half = c.type == kHalf;
  // A constant row has rstd = 1/sqrt(eps), so rounding in the mean is magnified.
  const double abs = half ? 1e-2 : (c.constant ? 2e-3 : 2e-4);
  ExpectClose(DownloadAs(output), want, abs, half ? 4e-3 : 1e-4, "output");
  if (c.save) {
    ExpectClose(DownloadAs(mean), want_mean, 1e-5, 1e-5, "mean");
    // rstd comes from the device rsqrt, accurate to a few units in 1e-4.
    ExpectClose(DownloadAs(rstd), want_rstd, 1e-3, c.constant ? 2e-3 : 1e-4, "rstd");
  }
}

TEST(ClLayerNormTest, RowLengthsAroundTheVectorWidth) {
  unsigned seed = 1200;
  for (long n : {1L, 5L, 64L, 4097L}) RunLayerNorm({{3, n}}, seed++);
  RunLayerNorm({{2, 3, 2, 7}, 2}, seed++);  // a 14-element row over two dims: like 4097
  RunLayerNorm({{4097}}, seed++);           // one row, rank 1
}

TEST(ClLayerNormTest, OptionalWeightAndBias) {
  unsigned seed = 1300;
  RunLayerNorm({{4, 5}, 1, false, false}, seed++);
  RunLayerNorm({{4, 5}, 1, true, false}, seed++);
  RunLayerNorm({{4, 4097}, 1, false, false}, seed++);
}

TEST(ClLayerNormTest, SavedStatisticsAndConstantRows) {
  unsigned seed = 1400;
  RunLayerNorm({{6, 5}, 1, true, true, true}, seed++);
  RunLayerNorm({{2, 4097}, 1, true, true, true}, seed++);
  RunLayerNorm({{5, 64}, 1, true, true, true}, seed++);
  RunLayerNorm({{5, 64}, 1, true, true, true, kFloat, true}, seed++);
  RunLayerNorm({{5, 5}, 1, true, true, true, kFloat, true}, seed++);
  // 64 rows or more: one item per row on CPU devices.
  RunLayerNorm({{80, 5}, 1, true, true, true}, seed++);
}

TEST(ClLayerNormTest, RowItemsRaggedLengths) {
  // 64 rows or more: on CPU devices items of four rows (the last one of
  // fewer) with 16-lane vectors and the leading elements one at a time.
  unsigned seed = 1450;
  for (long n : {1L, 15L, 17L, 4097L}) RunLayerNorm({{64, n}, 1, true, true, true}, seed++);
  RunLayerNorm({{66, 17}, 1, true, false}, seed++);
  RunLayerNorm({{67, 15}, 1, false, true, true}, seed++);
  RunLayerNorm({{65, 33}, 1, false, false, false, kHalf}, seed++);
  RunLayerNorm({{64, 40}, 1, true, true, true, kFloat, true}, seed++);
}

TEST(ClLayerNormTest, HalfData) {
  RunLayerNorm({{3, 67}, 1, true, true, false, kHalf}, 1500);
  RunLayerNorm({{3, 2, 67}, 1, true, true, false, kHalf}, 1501);
}

TEST(ClLayerNormTest, TransposedInput) {
  // A [5, 8] tensor viewed as [8, 5]: rows of 5 elements strided by 8.
  const std::vector<double> base = RoundTrip(RandomValues(40, -2, 3, 1600), kFloat);
  const std::vector<double> w = RoundTrip(RandomValues(5, 0.5, 1.5, 1601), kFloat);
  const std::vector<double> b = RoundTrip(RandomValues(5, -1, 1, 1602), kFloat);
  const Tensor input = UploadAs(base, {5, 8}, kFloat).Transpose({1, 0});
  ASSERT_FALSE(input.is_contiguous());
  Tensor weight = UploadAs(w, {5}, kFloat), bias = UploadAs(b, {5}, kFloat);
  Tensor output = MakeOutput({8, 5}, kFloat);
  TestQueue().Enqueue(LayerNorm::Create(
      TestQueue(), LayerNormOption{{5}}, input.option(), input.storage(), weight.option(),
      weight.storage(), bias.option(), bias.storage(), output.option(), output.storage()));
  std::vector<double> x(40), want(40);
  for (long r = 0; r < 8; ++r) {
    for (long k = 0; k < 5; ++k) x[r * 5 + k] = base[k * 8 + r];
  }
  for (long r = 0; r < 8; ++r) {
    const Stats st = RunStats(x, r * 5, 1, 0, 5, 1e-5);
    for (long k = 0; k < 5; ++k) want[r * 5 + k] = (x[r * 5 + k] - st.mean) * st.rstd * w[k] + b[k];
  }
  ExpectClose(DownloadAs(output), want, 2e-4, 1e-4, "output");
}

TEST(ClLayerNormTest, RejectsBadArguments) {
  Buffer buf = TestSession().MakeBuffer(kMemReadWrite, 4096);
  const TensorOption x{Shape({2, 6}), kFloat};
  const TensorOption w6{Shape({6}), kFloat};
  const TensorOption w5{Shape({5}), kFloat};
  const MaybeTensor none = Absent();
  Buffer out = buf;
  ExpectThrow<std::runtime_error>(
      [&] {
        return LayerNorm::Create(TestQueue(), LayerNormOption{{6}}, x, buf, w5, buf, w6, buf, x,
                                 out);
      },
      "Size of scale and bias size must equal to normalized size!");
  ExpectThrow<std::runtime_error>(
      [&] {
        return LayerNorm::Create(TestQueue(), LayerNormOption{{6}}, x, buf, none.option,
                                 none.buffer, w5, buf, x, out);
      },
      "Size of scale and bias size must equal to normalized size!");
  ExpectThrow<std::runtime_error>(
      [&] {
        return LayerNorm::Create(TestQueue(), LayerNormOption{{3}}, x, buf, none.option,
                                 none.buffer, none.option, none.buffer, x, out);
      },
      "LayerNorm: normalized_shape [3] does not match the trailing sizes of input shape [2, 6]");
  ExpectThrow<std::invalid_argument>(
      [&] {
        const TensorOption xi{Shape({2, 6}), kInt32};
        return LayerNorm::Create(TestQueue(), LayerNormOption{{6}}, xi, buf, none.option,
                                 none.buffer, none.option, none.buffer, xi, out);
      },
      "LayerNorm: unsupported input type DataType::kInt32");
  ExpectThrow<std::runtime_error>(
      [&] {
        return LayerNorm::Create(TestQueue(), LayerNormOption{{6}}, x, buf, none.option,
                                 none.buffer, none.option, none.buffer,
                                 TensorOption{Shape({6, 2}), kFloat}, out);
      },
      "LayerNorm: output has shape [6, 2]");
  ExpectThrow<std::runtime_error>(
      [&] {
        const TensorOption stat{Shape({3}), kFloat};
        return LayerNorm::Create(TestQueue(), LayerNormOption{{6}}, x, buf, none.option,
                                 none.buffer, none.option, none.buffer, x, out, stat, out, stat,
                                 out);
      },
      "LayerNormWithTraining: mean has shape [3] but needs 2 elements");
  ExpectThrow<std::invalid_argument>(
      [&] {
        const TensorOption x5{Shape({2, 5}), kFloat};
        return LayerNorm::Create(TestQueue(), LayerNormOption{{5}}, x5, buf, w5, buf,
                                 TensorOption{Shape({5}), kHalf}, buf, x5, out);
      },
      "must match when the row length 5 is not a multiple of 4");
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
