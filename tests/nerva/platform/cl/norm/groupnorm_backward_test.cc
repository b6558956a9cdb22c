// GroupNormBackward on the OpenCL device against PyTorch's gradient formulas
// in double precision: input, weight and bias gradients over spatial runs of
// 1, 5, 64 and 4097 elements, without a weight, partial masks and half data.

#include <array>

#include "nerva/platform/cl/norm/norm_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

struct GroupBackwardCase {
  std::vector<long> sizes;
  int groups;
  bool weight = true;
  std::array<bool, 3> mask{true, true, true};
  DataType type = kFloat;
};

void RunGroupBackward(const GroupBackwardCase& c, unsigned seed) {
  SCOPED_TRACE(StrCat("sizes ", Shape(c.sizes), " groups ", c.groups, " weight ", c.weight,
                      " mask ", c.mask[0], c.mask[1], c.mask[2], " type ", c.type));
  const long batch = c.sizes[0], channels = c.sizes[1], total = Count(c.sizes);
  const long hw = total / batch / channels, cpg = channels / c.groups, m = cpg * hw;
  const std::vector<double> x = RoundTrip(RandomValues(total, -2, 3, seed), c.type);
  const std::vector<double> dy = RoundTrip(RandomValues(total, -1, 1, seed + 1), c.type);
  const std::vector<double> w = RoundTrip(RandomValues(channels, 0.5, 1.5, seed + 2), c.type);
  std::vector<double> mean, rstd;
  for (long n = 0; n < batch; ++n) {
    for (long g = 0; g < c.groups; ++g) {
      const Stats st = RunStats(x, (n * channels + g * cpg) * hw, 1, 0, m, 1e-5);
      mean.push_back(st.mean);
      rstd.push_back(st.rstd);
    }
  }
  mean = RoundTrip(mean, kFloat);
  rstd = RoundTrip(rstd, kFloat);
  Tensor tx = UploadAs(x, c.sizes, c.type), tdy = UploadAs(dy, c.sizes, c.type);
  Tensor tw = UploadAs(w, {channels}, c.type);
  Tensor tmean = UploadAs(mean, {batch, c.groups}, kFloat);
  Tensor trstd = UploadAs(rstd, {batch, c.groups}, kFloat);
  Tensor dx = MakeOutput(c.sizes, c.type), dw = MakeOutput({channels}, c.type);
  Tensor db = MakeOutput({channels}, c.type);
  const MaybeTensor mw = c.weight ? Present(tw) : Absent();
  TestQueue().Enqueue(GroupNormBackward::Create(
      TestQueue(), GroupNormBackwardOption{c.groups, c.mask}, tdy.option(), tdy.storage(),
      tx.option(), tx.storage(), tmean.option(), tmean.storage(), trstd.option(), trstd.storage(),
      mw.option, mw.buffer, dx.option(), dx.storage(), dw.option(), dw.storage(), db.option(),
      db.storage()));

  std::vector<double> want_dx(total), want_dw(channels, 0.0), want_db(channels, 0.0);
  for (long n = 0; n < batch; ++n) {
    for (long g = 0; g < c.groups; ++g) {
      const double mu = mean[n * c.groups + g], rs = rstd[n * c.groups + g];
      double ds = 0, dbs = 0;
      for (long ch = g * cpg; ch < (g + 1) * cpg; ++ch) {
        const double wc = c.weight ? w[ch] : 1.0;
        for (long k = 0; k < hw; ++k) {
          const long i = (n * channels + ch) * hw + k;
          ds += dy[i] * x[i] * wc;
          dbs += dy[i] * wc;
          want_dw[ch] += dy[i] * (x[i] - mu) * rs;
          want_db[ch] += dy[i];
        }
      }
      const double c2 = (dbs * mu - ds) * rs * rs * rs / m;
      const double c3 = -c2 * mu - dbs * rs / m;
      for (long ch = g * cpg; ch < (g + 1) * cpg; ++ch) {
        for (long k = 0; k < hw; ++k) {
          const long i = (n * channels + ch) * hw + k;
          want_dx[i] = rs * (c.weight ? w[ch] : 1.0) * dy[i] + c2 * x[i] + c3;
        }
      }
    }
  }
  const bool half = c.type == kHalf;
  const double abs = half ? 5e-2 : 1e-3, rel = half ? 4e-3 : 1e-4;
  ExpectClose(DownloadAs(dx), c.mask[0] ? want_dx : std::vector<double>(total, 77.0),
              half ? 1e-2 : 2e-4, rel, "grad_input");
  ExpectClose(DownloadAs(dw), c.mask[1] ? want_dw : std::vector<double>(channels, 77.0), abs, rel,
              "grad_weight");
  ExpectClose(DownloadAs(db), c.mask[2] ? want_db : std::vector<double>(channels, 77.0), abs, rel,
              "grad_bias");
}

TEST(ClGroupNormBackwardTest, AllGradients) {
  unsigned seed = 5100;
  RunGroupBackward({{2, 6, 5}, 3}, seed++);
  RunGroupBackward({{3, 4}, 2}, seed++);
  RunGroupBackward({{2, 2, 4097}, 1}, seed++);
  RunGroupBackward({{2, 64, 5}, 32}, seed++);  // 64 groups and channels: one item each on CPUs
}

TEST(ClGroupNormBackwardTest, WithoutWeightMasksAndHalf) {
  unsigned seed = 5200;
  RunGroupBackward({{2, 6, 5}, 6, false}, seed++);
  RunGroupBackward({{2, 6, 5}, 3, true, {true, false, true}}, seed++);
  RunGroupBackward({{2, 6, 5}, 3, true, {false, true, false}}, seed++);
  RunGroupBackward({{2, 4, 67}, 2, true, {true, true, true}, kHalf}, seed++);
}

TEST(ClGroupNormBackwardTest, RejectsBadArguments) {
  Buffer buf = TestSession().MakeBuffer(kMemReadWrite, 4096);
  const TensorOption x{Shape({2, 6, 3}), kFloat}, stat{Shape({2, 3}), kFloat};
  const TensorOption w{Shape({6}), kFloat};
  Buffer out = buf;
  auto make = [&](int groups, const TensorOption& s, const TensorOption& weight) {
    return GroupNormBackward::Create(TestQueue(), GroupNormBackwardOption{groups}, x, buf, x, buf,
                                     s, buf, stat, buf, weight, buf, x, out, w, out, w, out);
  };
  ExpectThrow<std::runtime_error>(
      [&] { return make(4, stat, w); },
      "GroupNormBackward: 6 channels are not divisible by num_groups 4");
  ExpectThrow<std::runtime_error>(
      [&] {
        return make(3, TensorOption{Shape({2, 2}), kFloat}, w);
      },
      "GroupNormBackward: mean has shape [2, 2] but needs 6 elements");
  ExpectThrow<std::runtime_error>(
      [&] {
        return make(3, stat, TensorOption{Shape({5}), kFloat});
      },
      "GroupNormBackward: weight has shape [5] but the input has 6");
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
