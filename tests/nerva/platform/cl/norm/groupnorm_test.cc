// GroupNorm and GroupNormWithTraining on the OpenCL device against a
// double-precision reference: spatial runs of 1, 5, 64 and 4097 elements,
// optional weight and bias, saved statistics, half data and the checks.

#include "nerva/platform/cl/norm/norm_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

struct GroupNormCase {
  std::vector<long> sizes;
  int groups;
  bool affine = true;
  bool save = false;
  DataType type = kFloat;
};

void RunGroupNorm(const GroupNormCase& c, unsigned seed) {
  SCOPED_TRACE(StrCat("sizes ", Shape(c.sizes), " groups ", c.groups, " affine ", c.affine,
                      " save ", c.save, " type ", c.type));
  const long batch = c.sizes[0], channels = c.sizes[1];
  const long spatial = Count(c.sizes) / batch / channels, per_group = channels / c.groups;
  const std::vector<double> x = RoundTrip(RandomValues(Count(c.sizes), -2, 3, seed), c.type);
  const std::vector<double> w = RoundTrip(RandomValues(channels, 0.5, 1.5, seed + 1), c.type);
  const std::vector<double> b = RoundTrip(RandomValues(channels, -1, 1, seed + 2), c.type);
  Tensor input = UploadAs(x, c.sizes, c.type), output = MakeOutput(c.sizes, c.type);
  Tensor weight = UploadAs(w, {channels}, c.type), bias = UploadAs(b, {channels}, c.type);
  Tensor mean = MakeOutput({batch, c.groups}, kFloat), rstd = MakeOutput({batch, c.groups}, kFloat);
  const MaybeTensor mw = c.affine ? Present(weight) : Absent();
  const MaybeTensor mb = c.affine ? Present(bias) : Absent();
  const GroupNormOption option{c.groups, 1e-5f};
  Kernel kernel =
      c.save
          ? GroupNorm::Create(TestQueue(), option, input.option(), input.storage(), mw.option,
                              mw.buffer, mb.option, mb.buffer, output.option(), output.storage(),
                              mean.option(), mean.storage(), rstd.option(), rstd.storage())
          : GroupNorm::Create(TestQueue(), option, input.option(), input.storage(), mw.option,
                              mw.buffer, mb.option, mb.buffer, output.option(), output.storage());
  TestQueue().Enqueue(kernel);
  std::vector<double> want(x.size()), want_mean, want_rstd;
  for (long n = 0; n < batch; ++n) {
    for (long g = 0; g < c.groups; ++g) {
      const long first = (n * channels + g * per_group) * spatial;
      const Stats st = RunStats(x, first, 1, 0, per_group * spatial, 1e-5);
      want_mean.push_back(st.mean);
      want_rstd.push_back(st.rstd);
      for (long k = 0; k < per_group * spatial; ++k) {
        const long ch = g * per_group + k / spatial;
        want[first + k] =
            (x[first + k] - st.mean) * st.rstd * (c.affine ? w[ch] : 1) + (c.affine ? b[ch] : 0);
      }
    }
  }
  const bool half = c.type == kHalf;
  ExpectClose(DownloadAs(output), want, half ? 1e-2 : 2e-4, half ? 4e-3 : 1e-4, "output");
  if (c.save) {
    ExpectClose(DownloadAs(mean), want_mean, 1e-5, 1e-5, "mean");
    ExpectClose(DownloadAs(rstd), want_rstd, 1e-4, 1e-4, "rstd");
  }
}

TEST(ClGroupNormTest, SpatialRunsAndGroups) {
  unsigned seed = 4100;
  RunGroupNorm({{2, 6, 5}, 3}, seed++);
  RunGroupNorm({{3, 4}, 2}, seed++);         // no spatial dimensions
  RunGroupNorm({{2, 4, 4, 16}, 2}, seed++);  // two spatial dimensions, 64 elements
  RunGroupNorm({{1, 2, 4097}, 1}, seed++);
  RunGroupNorm({{2, 6, 5}, 6, false}, seed++);  // one channel per group, no affine
  RunGroupNorm({{33, 4, 5}, 2}, seed++);        // 66 groups: one item each on CPU devices
}

TEST(ClGroupNormTest, SavedStatisticsAndHalf) {
  unsigned seed = 4200;
  RunGroupNorm({{3, 4, 5}, 2, true, true}, seed++);
  RunGroupNorm({{2, 4, 4097}, 4, true, true}, seed++);
  RunGroupNorm({{2, 4, 67}, 2, true, false, kHalf}, seed++);
}

TEST(ClGroupNormTest, RejectsBadArguments) {
  Buffer buf = TestSession().MakeBuffer(kMemReadWrite, 4096);
  const TensorOption x{Shape({2, 6, 3}), kFloat};
  const MaybeTensor none = Absent();
  Buffer out = buf;
  ExpectThrow<std::runtime_error>(
      [&] {
        return GroupNorm::Create(TestQueue(), GroupNormOption{4}, x, buf, none.option, none.buffer,
                                 none.option, none.buffer, x, out);
      },
      "GroupNorm: 6 channels are not divisible by num_groups 4");
  ExpectThrow<std::invalid_argument>(
      [&] {
        return GroupNorm::Create(TestQueue(), GroupNormOption{0}, x, buf, none.option, none.buffer,
                                 none.option, none.buffer, x, out);
      },
      "GroupNorm: num_groups must be positive, got 0");
  ExpectThrow<std::runtime_error>(
      [&] {
        return GroupNorm::Create(TestQueue(), GroupNormOption{3}, x, buf,
                                 TensorOption{Shape({3}), kFloat}, buf, none.option, none.buffer, x,
                                 out);
      },
      "GroupNorm: weight has shape [3] but the input has 6 channels");
  ExpectThrow<std::runtime_error>(
      [&] {
        const TensorOption x1{Shape({6}), kFloat};
        return GroupNorm::Create(TestQueue(), GroupNormOption{3}, x1, buf, none.option, none.buffer,
                                 none.option, none.buffer, x1, out);
      },
      "GroupNorm: input must have at least 2 dimensions, got shape [6]");
  ExpectThrow<std::runtime_error>(
      [&] {
        const TensorOption stat{Shape({2, 2}), kFloat};
        return GroupNorm::Create(TestQueue(), GroupNormOption{3}, x, buf, none.option, none.buffer,
                                 none.option, none.buffer, x, out, stat, out, stat, out);
      },
      "GroupNormWithTraining: mean has shape [2, 2] but needs 6 elements");
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
