// InstanceNorm on the OpenCL device against a double-precision reference:
// spatial runs of 5, 64 and 4097 elements over one and two spatial
// dimensions, optional weight and bias, half data and the checks.

#include "nerva/platform/cl/norm/norm_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

void RunInstanceNorm(const std::vector<long>& sizes, bool affine, DataType type, unsigned seed) {
  SCOPED_TRACE(StrCat("sizes ", Shape(sizes), " affine ", affine, " type ", type));
  const long batch = sizes[0], channels = sizes[1], total = Count(sizes);
  const long hw = total / batch / channels;
  const std::vector<double> x = RoundTrip(RandomValues(total, -2, 3, seed), type);
  const std::vector<double> w = RoundTrip(RandomValues(channels, 0.5, 1.5, seed + 1), type);
  const std::vector<double> b = RoundTrip(RandomValues(channels, -1, 1, seed + 2), type);
  Tensor input = UploadAs(x, sizes, type), output = MakeOutput(sizes, type);
  Tensor weight = UploadAs(w, {channels}, type), bias = UploadAs(b, {channels}, type);
  const MaybeTensor mw = affine ? Present(weight) : Absent();
  const MaybeTensor mb = affine ? Present(bias) : Absent();
  TestQueue().Enqueue(InstanceNorm::Create(TestQueue(), InstanceNormOption{1e-5f}, input.option(),
                                           input.storage(), mw.option, mw.buffer, mb.option,
                                           mb.buffer, output.option(), output.storage()));
  std::vector<double> want(total);
  for (long r = 0; r < batch * channels; ++r) {
    const Stats st = RunStats(x, r * hw, 1, 0, hw, 1e-5);
    const long ch = r % channels;
    for (long k = 0; k < hw; ++k) {
      want[r * hw + k] =
          (x[r * hw + k] - st.mean) * st.rstd * (affine ? w[ch] : 1) + (affine ? b[ch] : 0);
    }
  }
  const bool half = type == kHalf;
  ExpectClose(DownloadAs(output), want, half ? 1e-2 : 2e-4, half ? 4e-3 : 1e-4, "output");
}

TEST(ClInstanceNormTest, SpatialRunsAffineAndHalf) {
  unsigned seed = 8100;
  RunInstanceNorm({2, 3, 5}, true, kFloat, seed++);
  RunInstanceNorm({2, 3, 4, 16}, true, kFloat, seed++);
  RunInstanceNorm({1, 2, 4097}, true, kFloat, seed++);
  RunInstanceNorm({3, 2, 5}, false, kFloat, seed++);
  RunInstanceNorm({2, 3, 67}, true, kHalf, seed++);
  RunInstanceNorm({33, 2, 5}, true, kFloat, seed++);  // one item per run on CPU devices
}

TEST(ClInstanceNormTest, RejectsBadArguments) {
  Buffer buf = TestSession().MakeBuffer(kMemReadWrite, 4096);
  const MaybeTensor none = Absent();
  Buffer out = buf;
  ExpectThrow<std::runtime_error>(
      [&] {
        const TensorOption x{Shape({2, 3, 1, 1}), kFloat};
        return InstanceNorm::Create(TestQueue(), InstanceNormOption{}, x, buf, none.option,
                                    none.buffer, none.option, none.buffer, x, out);
      },
      "Expected more than 1 spatial element!");
  ExpectThrow<std::runtime_error>(
      [&] {
        const TensorOption x{Shape({2, 3, 4}), kFloat};
        return InstanceNorm::Create(TestQueue(), InstanceNormOption{}, x, buf,
                                    TensorOption{Shape({4}), kFloat}, buf, none.option, none.buffer,
                                    x, out);
      },
      "Size of scale and bias size must equal to channel size!");
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
