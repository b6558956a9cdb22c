// BatchNormBackward on the OpenCL device against PyTorch's gradient formulas
// in double precision: the training form (saved mean and rstd) and the
// inference form (running statistics), spatial runs of 1, 5, 64 and 4097,
// without a weight, partial masks, half data and the checks.

#include <array>

#include "nerva/platform/cl/norm/norm_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

struct BackwardCase {
  std::vector<long> sizes;
  bool training = true;
  bool weight = true;
  std::array<bool, 3> mask{true, true, true};
  DataType type = kFloat;
};

void RunBackward(const BackwardCase& c, unsigned seed) {
  SCOPED_TRACE(StrCat("sizes ", Shape(c.sizes), " training ", c.training, " weight ", c.weight,
                      " mask ", c.mask[0], c.mask[1], c.mask[2], " type ", c.type));
  const long batch = c.sizes[0], channels = c.sizes[1], total = Count(c.sizes);
  const long hw = total / batch / channels, n = batch * hw;
  const double eps = 1e-5;
  const std::vector<double> x = RoundTrip(RandomValues(total, -2, 3, seed), c.type);
  const std::vector<double> dy = RoundTrip(RandomValues(total, -1, 1, seed + 1), c.type);
  const std::vector<double> w = RoundTrip(RandomValues(channels, 0.5, 1.5, seed + 2), kFloat);
  const std::vector<double> rmean = RoundTrip(RandomValues(channels, -1, 1, seed + 3), kFloat);
  const std::vector<double> rvar = RoundTrip(RandomValues(channels, 0.5, 2, seed + 4), kFloat);
  std::vector<double> smean(channels), srstd(channels);
  for (long ch = 0; ch < channels; ++ch) {
    const Stats st = RunStats(x, ch * hw, batch, channels * hw, hw, eps);
    smean[ch] = st.mean;
    srstd[ch] = st.rstd;
  }
  smean = RoundTrip(smean, kFloat);
  srstd = RoundTrip(srstd, kFloat);
  Tensor tx = UploadAs(x, c.sizes, c.type), tdy = UploadAs(dy, c.sizes, c.type);
  Tensor tw = UploadAs(w, {channels}, kFloat);
  Tensor trm = UploadAs(rmean, {channels}, kFloat), trv = UploadAs(rvar, {channels}, kFloat);
  Tensor tsm = UploadAs(smean, {channels}, kFloat), tsr = UploadAs(srstd, {channels}, kFloat);
  Tensor dx = MakeOutput(c.sizes, c.type), dw = MakeOutput({channels}, kFloat);
  Tensor db = MakeOutput({channels}, kFloat);
  const MaybeTensor mw = c.weight ? Present(tw) : Absent();
  // The statistics of the other mode are left out.
  const MaybeTensor rm = c.training ? Absent() : Present(trm);
  const MaybeTensor rv = c.training ? Absent() : Present(trv);
  const MaybeTensor sm = c.training ? Present(tsm) : Absent();
  const MaybeTensor sr = c.training ? Present(tsr) : Absent();
  BatchNormBackwardOption option{c.training, static_cast<float>(eps), c.mask};
  TestQueue().Enqueue(BatchNormBackward::Create(
      TestQueue(), option, tdy.option(), tdy.storage(), tx.option(), tx.storage(), mw.option,
      mw.buffer, rm.option, rm.buffer, rv.option, rv.buffer, sm.option, sm.buffer, sr.option,
      sr.buffer, dx.option(), dx.storage(), dw.option(), dw.storage(), db.option(), db.storage()));

  std::vector<double> want_dx(total), want_dw(channels), want_db(channels);
  for (long ch = 0; ch < channels; ++ch) {
    const double mu = c.training ? smean[ch] : rmean[ch];
    const double inv_std = c.training ? srstd[ch] : 1.0 / std::sqrt(rvar[ch] + eps);
    double sum = 0, dotp = 0;
    for (long b = 0; b < batch; ++b) {
      for (long k = 0; k < hw; ++k) {
        const long i = (b * channels + ch) * hw + k;
        sum += dy[i];
        dotp += (x[i] - mu) * dy[i];
      }
    }
    want_dw[ch] = dotp * inv_std;
    want_db[ch] = sum;
    const double wc = c.weight ? w[ch] : 1.0;
    for (long b = 0; b < batch; ++b) {
      for (long k = 0; k < hw; ++k) {
        const long i = (b * channels + ch) * hw + k;
        want_dx[i] = c.training ? (dy[i] - sum / n - (x[i] - mu) * dotp * inv_std * inv_std / n) *
                                      inv_std * wc
                                : dy[i] * inv_std * wc;
      }
    }
  }
  const bool half = c.type == kHalf;
  ExpectClose(DownloadAs(dx), c.mask[0] ? want_dx : std::vector<double>(total, 77.0),
              half ? 1e-2 : 2e-4, half ? 4e-3 : 1e-4, "grad_input");
  ExpectClose(DownloadAs(dw), c.mask[1] ? want_dw : std::vector<double>(channels, 77.0),
              half ? 2e-2 : 1e-3, 1e-4, "grad_weight");
  ExpectClose(DownloadAs(db), c.mask[2] ? want_db : std::vector<double>(channels, 77.0),
              half ? 2e-2 : 1e-3, 1e-4, "grad_bias");
}

TEST(ClBatchNormBackwardTest, TrainingAndInferenceForms) {
  unsigned seed = 7100;
  RunBackward({{2, 3, 5}, true}, seed++);
  RunBackward({{4, 3}, true}, seed++);
  RunBackward({{2, 2, 4097}, true}, seed++);
  RunBackward({{2, 3, 5}, false}, seed++);
  RunBackward({{2, 64, 5}, true}, seed++);  // one item per channel on CPU devices
}

TEST(ClBatchNormBackwardTest, WithoutWeightMasksAndHalf) {
  unsigned seed = 7200;
  RunBackward({{2, 3, 5}, true, false}, seed++);
  RunBackward({{2, 3, 5}, true, true, {false, true, true}}, seed++);
  RunBackward({{2, 3, 5}, false, true, {true, false, false}}, seed++);
  RunBackward({{2, 3, 67}, true, true, {true, true, true}, kHalf}, seed++);
}

TEST(ClBatchNormBackwardTest, RejectsBadArguments) {
  Buffer buf = TestSession().MakeBuffer(kMemReadWrite, 4096);
  const TensorOption x{Shape({2, 3, 4}), kFloat}, f3{Shape({3}), kFloat}, h3{Shape({3}), kHalf};
  const MaybeTensor none = Absent();
  Buffer out = buf;
  auto make = [&](bool training, const TensorOption& rm, const TensorOption& sm) {
    return BatchNormBackward::Create(TestQueue(), BatchNormBackwardOption{training}, x, buf, x, buf,
                                     f3, buf, rm, buf, f3, buf, sm, buf, f3, buf, x, out, f3, out,
                                     f3, out);
  };
  ExpectThrow<std::runtime_error>([&] { return make(false, h3, f3); },
                                  "BatchNorm mean tensor must be float type.");
  ExpectThrow<std::runtime_error>([&] { return make(true, f3, h3); },
                                  "BatchNorm mean tensor must be float type.");
  ExpectThrow<std::invalid_argument>(
      [&] {
        return BatchNormBackward::Create(TestQueue(), BatchNormBackwardOption{true}, x, buf, x, buf,
                                         f3, buf, f3, buf, f3, buf, none.option, none.buffer, f3,
                                         buf, x, out, f3, out, f3, out);
      },
      "BatchNormBackward: save_mean is undefined");
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
