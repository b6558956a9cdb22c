// RMSNorm on the OpenCL device against a double-precision reference: row
// lengths 1, 5, 64 and 4097, with and without a weight, constant rows, half
// data and the argument checks.

#include "nerva/platform/cl/norm/norm_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

void RunRMSNorm(const std::vector<long>& sizes, bool use_weight, DataType type, unsigned seed,
                bool constant = false) {
  SCOPED_TRACE(StrCat("sizes ", Shape(sizes), " weight ", use_weight, " type ", type));
  const long n = sizes.back(), rows = Count(sizes) / n;
  std::vector<double> x = RandomValues(rows * n, -2, 3, seed);
  if (constant) {
    for (auto& v : x) v = 0.75;
  }
  x = RoundTrip(x, type);
  const std::vector<double> w = RoundTrip(RandomValues(n, 0.5, 1.5, seed + 1), type);
  Tensor input = UploadAs(x, sizes, type), weight = UploadAs(w, {n}, type);
  Tensor output = MakeOutput(sizes, type);
  const MaybeTensor mw = use_weight ? Present(weight) : Absent();
  const float eps = 1e-6f;
  TestQueue().Enqueue(RMSNorm::Create(TestQueue(), RMSNormOption{{n}, eps}, input.option(),
                                      input.storage(), mw.option, mw.buffer, output.option(),
                                      output.storage()));
  std::vector<double> want(x.size());
  for (long r = 0; r < rows; ++r) {
    double ss = 0;
    for (long k = 0; k < n; ++k) ss += x[r * n + k] * x[r * n + k];
    const double rstd = 1.0 / std::sqrt(ss / n + eps);
    for (long k = 0; k < n; ++k) want[r * n + k] = x[r * n + k] * rstd * (use_weight ? w[k] : 1);
  }
  const bool half = type == kHalf;
  ExpectClose(DownloadAs(output), want, half ? 1e-2 : 1e-5, half ? 4e-3 : 2e-5, "output");
}

TEST(ClRMSNormTest, RowLengthsWeightAndHalf) {
  unsigned seed = 3100;
  for (long n : {1L, 5L, 64L, 4097L}) RunRMSNorm({3, n}, true, kFloat, seed++);
  RunRMSNorm({2, 2, 5}, false, kFloat, seed++);
  RunRMSNorm({4, 64}, true, kFloat, seed++, true);
  RunRMSNorm({3, 67}, true, kHalf, seed++);
  RunRMSNorm({70, 5}, true, kFloat, seed++);  // one item per row on CPU devices
  // Items of four rows on CPU devices, the last one of fewer.
  for (long n : {1L, 15L, 17L, 4097L}) RunRMSNorm({64, n}, true, kFloat, seed++);
  RunRMSNorm({66, 17}, false, kFloat, seed++);
  RunRMSNorm({67, 33}, true, kHalf, seed++);
}

TEST(ClRMSNormTest, RejectsBadArguments) {
  Buffer buf = TestSession().MakeBuffer(kMemReadWrite, 4096);
  const TensorOption x{Shape({2, 6}), kFloat};
  Buffer out = buf;
  ExpectThrow<std::runtime_error>(
      [&] {
        return RMSNorm::Create(TestQueue(), RMSNormOption{{6}}, x, buf,
                               TensorOption{Shape({5}), kFloat}, buf, x, out);
      },
      "RMSNorm: weight has shape [5] but the normalized size is 6");
  ExpectThrow<std::runtime_error>(
      [&] {
        return RMSNorm::Create(TestQueue(), RMSNormOption{{2, 6}}, x, buf, Absent().option,
                               Buffer(), TensorOption{Shape({12}), kFloat}, out);
      },
      "RMSNorm: output has shape [12]");
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
