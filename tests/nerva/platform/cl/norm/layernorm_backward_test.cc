// LayerNormBackward on the OpenCL device against PyTorch's gradient formulas
// in double precision: input, weight and bias gradients over row lengths 1,
// 5, 64 and 4097, without a weight, with partial output masks and in half.

#include <array>

#include "nerva/platform/cl/norm/norm_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

struct BackwardCase {
  long rows;
  long n;
  bool weight = true;
  std::array<bool, 3> mask{true, true, true};
  DataType type = kFloat;
};

void RunBackward(const BackwardCase& c, unsigned seed) {
  SCOPED_TRACE(StrCat("rows ", c.rows, " n ", c.n, " weight ", c.weight, " mask ", c.mask[0],
                      c.mask[1], c.mask[2], " type ", c.type));
  const long rows = c.rows, n = c.n;
  const std::vector<long> sizes{rows, n};
  const std::vector<double> x = RoundTrip(RandomValues(rows * n, -2, 3, seed), c.type);
  const std::vector<double> g = RoundTrip(RandomValues(rows * n, -1, 1, seed + 1), c.type);
  const std::vector<double> w = RoundTrip(RandomValues(n, 0.5, 1.5, seed + 2), c.type);
  std::vector<double> mean(rows), rstd(rows);
  for (long r = 0; r < rows; ++r) {
    const Stats st = RunStats(x, r * n, 1, 0, n, 1e-5);
    mean[r] = st.mean;
    rstd[r] = st.rstd;
  }
  mean = RoundTrip(mean, kFloat);
  rstd = RoundTrip(rstd, kFloat);
  Tensor tx = UploadAs(x, sizes, c.type), tg = UploadAs(g, sizes, c.type);
  Tensor tw = UploadAs(w, {n}, c.type), tb = UploadAs(w, {n}, c.type);
  Tensor tmean = UploadAs(mean, {rows, 1}, kFloat), trstd = UploadAs(rstd, {rows, 1}, kFloat);
  Tensor dx = MakeOutput(sizes, c.type), dw = MakeOutput({n}, c.type), db = MakeOutput({n}, c.type);
  const MaybeTensor mw = c.weight ? Present(tw) : Absent();
  LayerNormBackwardOption option{{n}, c.mask};
  TestQueue().Enqueue(LayerNormBackward::Create(
      TestQueue(), option, tg.option(), tg.storage(), tx.option(), tx.storage(), tmean.option(),
      tmean.storage(), trstd.option(), trstd.storage(), mw.option, mw.buffer, tb.option(),
      tb.storage(), dx.option(), dx.storage(), dw.option(), dw.storage(), db.option(),
      db.storage()));

  std::vector<double> want_dx(rows * n), want_dw(n, 0.0), want_db(n, 0.0);
  for (long r = 0; r < rows; ++r) {
    double s1 = 0, s2 = 0;
    for (long k = 0; k < n; ++k) {
      const double gh = g[r * n + k] * (c.weight ? w[k] : 1.0);
      const double xh = (x[r * n + k] - mean[r]) * rstd[r];
      s1 += gh;
      s2 += gh * xh;
      want_dw[k] += g[r * n + k] * xh;
      want_db[k] += g[r * n + k];
    }
    for (long k = 0; k < n; ++k) {
      const double gh = g[r * n + k] * (c.weight ? w[k] : 1.0);
      const double xh = (x[r * n + k] - mean[r]) * rstd[r];
      want_dx[r * n + k] = rstd[r] / n * (n * gh - s1 - xh * s2);
    }
  }
  const bool half = c.type == kHalf;
  const std::vector<double> marker(n, 77.0);
  if (c.mask[0]) {
    ExpectClose(DownloadAs(dx), want_dx, half ? 1e-2 : 2e-4, half ? 4e-3 : 1e-4, "grad_input");
  } else {
    ExpectClose(DownloadAs(dx), std::vector<double>(rows * n, 77.0), 0, 0, "grad_input");
  }
  ExpectClose(DownloadAs(dw), c.mask[1] ? want_dw : marker, half ? 5e-2 : 1e-3, half ? 4e-3 : 1e-4,
              "grad_weight");
  ExpectClose(DownloadAs(db), c.mask[2] ? want_db : marker, half ? 5e-2 : 1e-3, half ? 4e-3 : 1e-4,
              "grad_bias");
}

TEST(ClLayerNormBackwardTest, AllGradientsOverRowLengths) {
  unsigned seed = 2100;
  for (long n : {1L, 5L, 64L, 4097L}) RunBackward({3, n}, seed++);
  RunBackward({70, 5}, seed++);  // more rows than one block of the column walk
  RunBackward({70, 133}, seed++);
}

TEST(ClLayerNormBackwardTest, RowChunksRaggedLengths) {
  // On CPU devices chunks of rows, four at a time, write the input gradient
  // and fold the rows into partial rows for the gradients asked for: 16-lane
  // vectors after 1, 15 or 1 leading elements, chunks ending between steps.
  unsigned seed = 2150;
  for (long n : {1L, 15L, 17L, 4097L}) RunBackward({64, n}, seed++);
  RunBackward({70, 17}, seed++);
  RunBackward({66, 17, false}, seed++);
  RunBackward({66, 15, true, {true, true, false}}, seed++);
  RunBackward({66, 15, true, {false, true, false}}, seed++);
  RunBackward({66, 15, false, {false, false, true}}, seed++);
  RunBackward({64, 17, true, {true, false, false}}, seed++);
  RunBackward({67, 33, true, {true, true, true}, kHalf}, seed++);
}

TEST(ClLayerNormBackwardTest, WithoutWeightAndPartialMasks) {
  unsigned seed = 2200;
  RunBackward({4, 5, false}, seed++);
  RunBackward({4, 64, true, {true, false, false}}, seed++);
  RunBackward({4, 64, true, {false, false, true}}, seed++);
}

TEST(ClLayerNormBackwardTest, HalfData) {
  RunBackward({5, 67, true, {true, true, true}, kHalf}, 2300);
}

TEST(ClLayerNormBackwardTest, GpuColumnGradientsSplitTheRows) {
  // Enough rows to split the weight and bias sums over groups; leftover
  // lanes, partial masks and half data (input gradient on its usual path).
  GpuPathsForTesting gpu;
  unsigned seed = 2400;
  RunBackward({150, 5}, seed++);
  RunBackward({97, 133}, seed++);
  RunBackward({64, 64, true, {false, true, false}}, seed++);
  RunBackward({70, 5, false, {true, false, true}}, seed++);
  RunBackward({129, 67, true, {true, true, true}, kHalf}, seed++);
  RunBackward({40, 5}, seed++);  // too few rows to split
}

TEST(ClLayerNormBackwardTest, RejectsBadArguments) {
  Buffer buf = TestSession().MakeBuffer(kMemReadWrite, 4096);
  const TensorOption x{Shape({2, 6}), kFloat}, w6{Shape({6}), kFloat}, w4{Shape({4}), kFloat};
  const TensorOption stat{Shape({2}), kFloat};
  const MaybeTensor none = Absent();
  Buffer out = buf;
  auto make = [&](const TensorOption& g, const TensorOption& s, const TensorOption& w,
                  const TensorOption& gi) {
    return LayerNormBackward::Create(TestQueue(), LayerNormBackwardOption{{6}}, g, buf, x, buf, s,
                                     buf, stat, buf, w, buf, none.option, none.buffer, gi, out, w6,
                                     out, w6, out);
  };
  ExpectThrow<std::runtime_error>([&] { return make(x, stat, w4, x); },
                                  "Size of scale and bias size must equal to normalized size!");
  ExpectThrow<std::runtime_error>(
      [&] {
        return make(x, TensorOption{Shape({3}), kFloat}, w6, x);
      },
      "LayerNormBackward: mean has shape [3] but needs 2 elements");
  ExpectThrow<std::runtime_error>(
      [&] {
        return make(TensorOption{Shape({2, 5}), kFloat}, stat, w6, x);
      },
      "LayerNormBackward: grad_output shape [2, 5] does not match input shape [2, 6]");
  ExpectThrow<std::invalid_argument>(
      [&] {
        return make(x, stat, w6, TensorOption{Shape({2, 6}), kHalf});
      },
      "LayerNormBackward: grad_input type DataType::kHalf differs");
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
