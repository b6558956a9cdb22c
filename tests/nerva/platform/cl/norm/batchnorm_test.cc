// BatchNorm (inference) and BatchNormTrain on the OpenCL device against a
// double-precision reference: spatial runs of 1, 5, 64 and 4097 elements,
// optional weight and bias, saved statistics, momentum 0, 0.1 and 1, half
// data and the checks.

#include "nerva/platform/cl/norm/norm_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

struct BatchNormCase {
  std::vector<long> sizes;
  bool affine = true;
  DataType type = kFloat;
  float momentum = 0.1f;
  bool running = true;  // training: running statistics given and updated
};

// Per-channel random parameters: mean, var (positive), weight, bias.
struct Params {
  std::vector<double> mean, var, weight, bias;
};
Params MakeParams(long channels, unsigned seed) {
  return {RoundTrip(RandomValues(channels, -1, 1, seed), kFloat),
          RoundTrip(RandomValues(channels, 0.5, 2, seed + 1), kFloat),
          RoundTrip(RandomValues(channels, 0.5, 1.5, seed + 2), kFloat),
          RoundTrip(RandomValues(channels, -1, 1, seed + 3), kFloat)};
}

double Tolerance(DataType type) {
  return type == kHalf ? 1e-2 : 2e-4;
}

void RunInference(const BatchNormCase& c, unsigned seed) {
  SCOPED_TRACE(StrCat("sizes ", Shape(c.sizes), " affine ", c.affine, " type ", c.type));
  const long batch = c.sizes[0], channels = c.sizes[1], total = Count(c.sizes);
  const long hw = total / batch / channels;
  const std::vector<double> x = RoundTrip(RandomValues(total, -2, 3, seed), c.type);
  const Params p = MakeParams(channels, seed + 1);
  Tensor input = UploadAs(x, c.sizes, c.type), output = MakeOutput(c.sizes, c.type);
  Tensor mean = UploadAs(p.mean, {channels}, kFloat), var = UploadAs(p.var, {channels}, kFloat);
  Tensor w = UploadAs(p.weight, {channels}, kFloat), b = UploadAs(p.bias, {channels}, kFloat);
  const MaybeTensor mw = c.affine ? Present(w) : Absent(), mb = c.affine ? Present(b) : Absent();
  TestQueue().Enqueue(BatchNorm::Create(TestQueue(), BatchNormOption{1e-5f}, input.option(),
                                        input.storage(), mean.option(), mean.storage(),
                                        var.option(), var.storage(), mw.option, mw.buffer,
                                        mb.option, mb.buffer, output.option(), output.storage()));
  std::vector<double> want(total);
  for (long i = 0; i < total; ++i) {
    const long ch = i / hw % channels;
    want[i] = (x[i] - p.mean[ch]) / std::sqrt(p.var[ch] + 1e-5) * (c.affine ? p.weight[ch] : 1) +
              (c.affine ? p.bias[ch] : 0);
  }
  ExpectClose(DownloadAs(output), want, Tolerance(c.type), Tolerance(c.type) / 2, "output");
}

void RunTrain(const BatchNormCase& c, unsigned seed) {
  SCOPED_TRACE(StrCat("sizes ", Shape(c.sizes), " affine ", c.affine, " type ", c.type,
                      " momentum ", c.momentum, " running ", c.running));
  const long batch = c.sizes[0], channels = c.sizes[1], total = Count(c.sizes);
  const long hw = total / batch / channels, n = batch * hw;
  const std::vector<double> x = RoundTrip(RandomValues(total, -2, 3, seed), c.type);
  const Params p = MakeParams(channels, seed + 1);
  Tensor input = UploadAs(x, c.sizes, c.type), output = MakeOutput(c.sizes, c.type);
  Tensor rmean = UploadAs(p.mean, {channels}, kFloat), rvar = UploadAs(p.var, {channels}, kFloat);
  Tensor w = UploadAs(p.weight, {channels}, kFloat), b = UploadAs(p.bias, {channels}, kFloat);
  Tensor save_mean = MakeOutput({channels}, kFloat), save_rstd = MakeOutput({channels}, kFloat);
  Tensor new_mean = MakeOutput({channels}, kFloat), new_var = MakeOutput({channels}, kFloat);
  const MaybeTensor mw = c.affine ? Present(w) : Absent(), mb = c.affine ? Present(b) : Absent();
  const MaybeTensor rm = c.running ? Present(rmean) : Absent();
  const MaybeTensor rv = c.running ? Present(rvar) : Absent();
  TestQueue().Enqueue(BatchNormTrain::Create(
      TestQueue(), BatchNormTrainOption{c.momentum, 1e-5f}, input.option(), input.storage(),
      rm.option, rm.buffer, rv.option, rv.buffer, mw.option, mw.buffer, mb.option, mb.buffer,
      output.option(), output.storage(), save_mean.option(), save_mean.storage(),
      save_rstd.option(), save_rstd.storage(), new_mean.option(), new_mean.storage(),
      new_var.option(), new_var.storage()));
  std::vector<double> want(total), want_mean(channels), want_rstd(channels);
  std::vector<double> want_new_mean(channels, 77.0), want_new_var(channels, 77.0);
  for (long ch = 0; ch < channels; ++ch) {
    const Stats st = RunStats(x, ch * hw, batch, channels * hw, hw, 1e-5);
    want_mean[ch] = st.mean;
    want_rstd[ch] = st.rstd;
    if (c.running) {
      want_new_mean[ch] = c.momentum * st.mean + (1 - c.momentum) * p.mean[ch];
      want_new_var[ch] = c.momentum * st.var * n / (n - 1) + (1 - c.momentum) * p.var[ch];
    }
    for (long bt = 0; bt < batch; ++bt) {
      for (long k = 0; k < hw; ++k) {
        const long i = (bt * channels + ch) * hw + k;
        want[i] = (x[i] - st.mean) * st.rstd * (c.affine ? p.weight[ch] : 1) +
                  (c.affine ? p.bias[ch] : 0);
      }
    }
  }
  ExpectClose(DownloadAs(output), want, Tolerance(c.type), Tolerance(c.type) / 2, "output");
  ExpectClose(DownloadAs(save_mean), want_mean, 1e-5, 1e-5, "save_mean");
  ExpectClose(DownloadAs(save_rstd), want_rstd, 1e-4, 1e-4, "save_rstd");
  ExpectClose(DownloadAs(new_mean), want_new_mean, 1e-5, 1e-5, "new_running_mean");
  ExpectClose(DownloadAs(new_var), want_new_var, 1e-4, 1e-4, "new_running_var");
}

TEST(ClBatchNormTest, Inference) {
  unsigned seed = 6100;
  RunInference({{2, 3, 5}}, seed++);
  RunInference({{4, 3}, false}, seed++);
  RunInference({{1, 2, 4097}}, seed++);
  RunInference({{2, 3, 67}, true, kHalf}, seed++);
}

TEST(ClBatchNormTest, TrainingMomentumAndRunningStatistics) {
  unsigned seed = 6200;
  RunTrain({{2, 3, 5}, true, kFloat, 0.1f}, seed++);
  RunTrain({{4, 3}, false, kFloat, 0.0f}, seed++);
  RunTrain({{2, 2, 4097}, true, kFloat, 1.0f}, seed++);
  RunTrain({{3, 2, 5}, true, kFloat, 0.1f, false}, seed++);
  RunTrain({{2, 3, 67}, true, kHalf, 0.1f}, seed++);
  RunTrain({{2, 64, 5}, true, kFloat, 0.1f}, seed++);   // one item per channel on CPU devices
  RunTrain({{2, 64, 17}, true, kFloat, 0.1f}, seed++);  // and 16-lane vectors
  RunTrain({{3, 64, 33}, false, kHalf, 1.0f}, seed++);
}

TEST(ClBatchNormTest, LargeTrainingSplitsTheStatistics) {
  // At least 2^16 elements: on CPU devices one item per slice with 16-lane
  // vectors; spatial runs of 1, 15, 17 and 4097 elements, half.
  unsigned seed = 6250;
  RunTrain({{1024, 64, 1}, true, kFloat, 0.1f}, seed++);
  RunTrain({{80, 64, 15}, false, kFloat, 1.0f}, seed++);
  RunTrain({{64, 64, 17}, true, kFloat, 0.0f, false}, seed++);
  RunTrain({{2, 8, 4097}, true, kFloat, 0.1f}, seed++);
  RunTrain({{4, 16, 1025}, true, kHalf, 0.1f}, seed++);
}

TEST(ClBatchNormTest, GpuTrainingSplitsTheStatistics) {
  // Per-slice partial sums, the per-channel statistics pass and the mapping:
  // leftover lanes, no affine or running statistics, half, many channels.
  GpuPathsForTesting gpu;
  unsigned seed = 6300;
  RunTrain({{3, 5, 7}, true, kFloat, 0.1f}, seed++);
  RunTrain({{4, 3}, false, kFloat, 0.0f}, seed++);
  RunTrain({{2, 2, 4097}, true, kFloat, 1.0f, false}, seed++);
  RunTrain({{2, 3, 67}, true, kHalf, 0.1f}, seed++);
  RunTrain({{3, 70, 2, 3}, true, kFloat, 0.1f}, seed++);
}

TEST(ClBatchNormTest, RejectsBadArguments) {
  Buffer buf = TestSession().MakeBuffer(kMemReadWrite, 4096);
  const TensorOption x{Shape({2, 3, 4}), kFloat}, f3{Shape({3}), kFloat}, h3{Shape({3}), kHalf};
  Buffer out = buf;
  auto infer = [&](const TensorOption& m, const TensorOption& v, const TensorOption& w,
                   const TensorOption& b) {
    return BatchNorm::Create(TestQueue(), BatchNormOption{}, x, buf, m, buf, v, buf, w, buf, b, buf,
                             x, out);
  };
  ExpectThrow<std::runtime_error>([&] { return infer(h3, f3, f3, f3); },
                                  "BatchNorm mean tensor must be float type.");
  ExpectThrow<std::runtime_error>([&] { return infer(f3, h3, f3, f3); },
                                  "BatchNorm var tensor must be float type.");
  ExpectThrow<std::runtime_error>([&] { return infer(f3, f3, h3, f3); },
                                  "BatchNorm weight tensor must be float type.");
  ExpectThrow<std::runtime_error>([&] { return infer(f3, f3, f3, h3); },
                                  "BatchNorm bias tensor must be float type.");
  ExpectThrow<std::runtime_error>(
      [&] {
        return infer(f3, TensorOption{Shape({4}), kFloat}, f3, f3);
      },
      "BatchNorm: var has shape [4] but the input has 3 channels");
  auto train = [&](const TensorOption& input, const TensorOption& m) {
    return BatchNormTrain::Create(TestQueue(), BatchNormTrainOption{}, input, buf, m, buf, f3, buf,
                                  f3, buf, f3, buf, input, out, f3, out, f3, out, f3, out, f3, out);
  };
  ExpectThrow<std::runtime_error>([&] { return train(x, h3); },
                                  "BatchNorm mean tensor must be float type.");
  ExpectThrow<std::runtime_error>(
      [&] {
        return train(TensorOption{Shape({1, 3}), kFloat}, f3);
      },
      "BatchNormTrain: expected more than 1 value per channel when training");
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
