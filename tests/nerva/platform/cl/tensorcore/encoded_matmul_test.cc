// EncodedMatMul through the tensor-core emulation: the coefficient is prepared by
// EncodedMatMul::EncodeMatMulCoef, whose platform encoder is played by a test session that
// packs the layout the program reads; results against a host product with the input zero
// point folded into the bias.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <optional>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "nerva/fake_platform.h"
#include "nerva/kernel/tensorcore.h"
#include "nerva/platform/cl/tensorcore/tc_test_util.h"

namespace nerva {
namespace cl {
namespace {

using CoefEncoder = FunctionWrapperBase<std::shared_ptr<EncodedCoef>>;

// A session whose encoder "EncodeMatMulCoef" writes the staged (n, k) 8-bit weights, padded
// to 4 bytes, then n int32 biases, then with rescale_pcq n multipliers round(scale * 2^param).
// It keeps the four tensor options it was given.
class EncoderSession : public nerva::test::FakeSessionImpl {
 public:
  EncoderSession()
      : encoder_(
            MakeFunctionWrapper<std::shared_ptr<EncodedCoef>, const Session&, int, EncodeCoefMode,
                                EncodedMatMulOption&, TensorOption, TensorOption, TensorOption,
                                TensorOption, const void*, const void*>(
                "EncodeMatMulCoef",
                [this](const Session&, int, EncodeCoefMode, EncodedMatMulOption& option,
                       TensorOption input, TensorOption weight, TensorOption block,
                       TensorOption staged, const void* data, const void* bias) {
                  seen = {input, weight, block, staged};
                  return Pack(option, staged.shape[0], staged.shape[1], data, bias);
                })) {}

  std::shared_ptr<EncodedCoef> EncodeCoefImpl(const std::string& name,
                                              FunctionParameters& params) override {
    if (name != "EncodeMatMulCoef") return FakeSessionImpl::EncodeCoefImpl(name, params);
    return encoder_->Call(params);
  }

  std::vector<TensorOption> seen;

 private:
  static std::shared_ptr<EncodedCoef> Pack(const EncodedMatMulOption& option, long n, long k,
                                           const void* weights, const void* bias) {
    std::vector<uint8_t> bytes(static_cast<size_t>((n * k + 3) / 4 * 4), 0);
    std::memcpy(bytes.data(), weights, static_cast<size_t>(n * k));
    std::vector<int32_t> tables(static_cast<const int32_t*>(bias),
                                static_cast<const int32_t*>(bias) + n);
    if (option.rescale_pcq) {
      for (float scale : option.rescale_pcq->second) {
        tables.push_back(
            static_cast<int32_t>(std::lround(std::ldexp(scale, option.rescale_pcq->first))));
      }
    }
    const size_t at = bytes.size();
    bytes.resize(at + 4 * tables.size());
    std::memcpy(bytes.data() + at, tables.data(), 4 * tables.size());
    return std::make_shared<EncodedCoef>("EncodeMatMulCoef", bytes.data(), bytes.size(), 0);
  }

  std::unique_ptr<CoefEncoder> encoder_;
};

int64_t Rs(int64_t x, int s) {
  return s > 0 ? (x + (int64_t{1} << (s - 1))) >> s : x;
}

int64_t Saturate(int64_t v, DataType type) {
  switch (type) {
    case kInt8:
      return std::clamp<int64_t>(v, -128, 127);
    case kUInt8:
      return std::clamp<int64_t>(v, 0, 255);
    case kInt16:
      return std::clamp<int64_t>(v, -32768, 32767);
    default:
      return std::clamp<int64_t>(v, INT32_MIN, INT32_MAX);
  }
}

template <typename T>
std::vector<int64_t> Widen(const std::vector<uint8_t>& bytes) {
  std::vector<int64_t> out(bytes.size() / sizeof(T));
  for (size_t i = 0; i < out.size(); ++i) {
    T v;
    std::memcpy(&v, bytes.data() + i * sizeof(T), sizeof(T));
    out[i] = v;
  }
  return out;
}

struct MatMulCase {
  const char* name;
  long m, k, n;
  DataType in_type, out_type;
  int zero_point;
  bool may_transpose;  // the caller allows the in0 and output transposes
  bool relu;
  std::optional<std::pair<int, float>> rescale;
  std::optional<std::pair<int, std::vector<float>>> rescale_pcq;
  long expect_tile_m;
  bool expect_transpose;
};

void RunCase(const MatMulCase& c) {
  SCOPED_TRACE(c.name);
  std::mt19937 rng(static_cast<uint32_t>(c.m * 31 + c.k * 7 + c.n));
  std::uniform_int_distribution<int> in_dist(c.in_type == kUInt8 ? 0 : -128,
                                             c.in_type == kUInt8 ? 255 : 127);
  std::uniform_int_distribution<int> w_dist(-128, 127), b_dist(-5000, 5000);
  // x is (m, k); the weight (k, n).
  std::vector<int64_t> x(static_cast<size_t>(c.m * c.k));
  for (auto& v : x) v = in_dist(rng);
  std::vector<int8_t> weight(static_cast<size_t>(c.k * c.n)), weight_t(weight.size());
  for (auto& v : weight) v = static_cast<int8_t>(w_dist(rng));
  for (long q = 0; q < c.k; ++q)
    for (long j = 0; j < c.n; ++j) weight_t[j * c.k + q] = weight[q * c.n + j];
  std::vector<int32_t> bias(static_cast<size_t>(c.n));
  for (auto& v : bias) v = b_dist(rng);

  // The fold subtracts K from the bias it is given: passing K leaves -zp * sum(w) added to
  // the initial new_bias.
  std::vector<int32_t> folded = bias, k_values(static_cast<size_t>(c.n), static_cast<int32_t>(c.k));
  EncodedConv2D::FuseInputZpToBias(c.zero_point, weight_t.data(), Shape({c.n, c.k}),
                                   k_values.data(), folded.data());

  EncodedMatMulOption option;
  option.allow_in0_transpose = option.allow_out_transpose = c.may_transpose;
  option.FuseRelu1(c.relu);
  if (c.rescale) option.FuseRescale(c.rescale->first, c.rescale->second);
  if (c.rescale_pcq) option.FuseRescalePerChannel(c.rescale_pcq->first, c.rescale_pcq->second);
  auto encoder = std::make_shared<EncoderSession>();
  const Session encoding(encoder);
  const auto coef = EncodedMatMul::EncodeMatMulCoef(encoding, 0, kEncodeCoefDefault, option, c.m,
                                                    c.k, c.n, kInt8, weight.data(), folded.data());
  EXPECT_EQ(option.tile_m, c.expect_tile_m);
  EXPECT_EQ(option.need_transpose, c.expect_transpose);
  ASSERT_EQ(encoder->seen.size(), 4u);
  EXPECT_EQ(encoder->seen[0].shape, Shape({c.n, 1, c.m}));
  EXPECT_EQ(encoder->seen[1].shape, Shape({c.k, c.n, 1, 1}));
  EXPECT_EQ(encoder->seen[2].shape, Shape({option.tile_k, c.n, 1, 1}));
  EXPECT_EQ(encoder->seen[3].shape, Shape({c.n, c.k, 1, 1}));

  // The input goes K-major (k, m), or as stored (m, k) when it is read transposed.
  const bool transposed = option.need_transpose;
  std::vector<uint8_t> input(static_cast<size_t>(c.m * c.k));
  for (long i = 0; i < c.m; ++i)
    for (long q = 0; q < c.k; ++q)
      input[transposed ? i * c.k + q : q * c.m + i] = static_cast<uint8_t>(x[i * c.k + q]);
  auto put = [](const void* data, size_t bytes) {
    Buffer buffer = testing::TcSession().MakeBuffer(kMemReadWrite, static_cast<long>(bytes));
    testing::TcQueue().CopyHostToDevice(buffer, data, static_cast<long>(bytes));
    return buffer;
  };
  const int32_t offsets[] = {0};
  const Buffer in_buf = put(input.data(), input.size());
  const Buffer coef_buf = put(coef->data.data(), coef->data.size());
  const Buffer offset_buf = put(offsets, sizeof(offsets));
  const TensorOption out_opt{Shape({c.n, c.m}), c.out_type};
  Buffer out_buf = testing::TcSession().MakeBuffer(kMemReadWrite, out_opt.bytes());
  Kernel kernel = EncodedMatMul::Create(
      testing::TcQueue().impl(), option,
      TensorOption{transposed ? Shape({c.m, c.k}) : Shape({c.k, c.m}), c.in_type}, in_buf,
      TensorOption{Shape({c.n, c.k}), kInt8}, coef_buf, TensorOption{Shape({1}), kInt32},
      offset_buf, out_opt, out_buf);
  testing::TcQueue().Enqueue(kernel);
  std::vector<uint8_t> bytes(out_opt.bytes());
  testing::TcQueue().CopyDeviceToHost(bytes.data(), out_buf, out_opt.bytes());
  const std::vector<int64_t> got = c.out_type == kInt8    ? Widen<int8_t>(bytes)
                                   : c.out_type == kInt16 ? Widen<int16_t>(bytes)
                                                          : Widen<int32_t>(bytes);

  std::vector<int64_t> expect(static_cast<size_t>(c.n * c.m));
  for (long j = 0; j < c.n; ++j)
    for (long i = 0; i < c.m; ++i) {
      int64_t v = bias[j];
      for (long q = 0; q < c.k; ++q) v += (x[i * c.k + q] - c.zero_point) * weight[q * c.n + j];
      if (c.relu) v = std::max<int64_t>(v, 0);
      if (c.rescale) {
        v = Rs(v * std::lround(std::ldexp(c.rescale->second, c.rescale->first)), c.rescale->first);
      }
      if (c.rescale_pcq) {
        const int shift = c.rescale_pcq->first;
        v = Rs(v * std::lround(std::ldexp(c.rescale_pcq->second[j], shift)), shift);
      }
      expect[j * c.m + i] = Saturate(v, c.out_type);
    }
  EXPECT_EQ(got, expect);
}

TEST(EncodedMatMulTest, EncodedProductMatchesTheHostProduct) {
  const MatMulCase cases[] = {
      // Below every candidate tile: the whole product in one launch.
      {"whole product, zero point", 7, 20, 5, kInt8, kInt32, -3, false, false, {}, {}, 7, false},
      {"relu, rescale to int8",
       9,
       12,
       6,
       kUInt8,
       kInt8,
       128,
       false,
       true,
       {{6, 0.4f}},
       {},
       9,
       false},
      {"per-channel rescale",
       5,
       8,
       3,
       kInt8,
       kInt16,
       0,
       false,
       false,
       {},
       {{5, {0.5f, 0.25f, 1.5f}}},
       5,
       false},
      // Tiles of 64 rows: one full tile, then a partial tile of 36.
      {"partial tile", 100, 128, 24, kInt8, kInt32, 2, false, false, {}, {}, 64, false},
      // No tiling fits the budget: the input comes as stored and is read transposed.
      {"transposed input", 43100, 7, 2, kInt8, kInt32, 5, true, false, {}, {}, 43100, true},
  };
  for (const MatMulCase& c : cases) RunCase(c);
}

}  // namespace
}  // namespace cl
}  // namespace nerva
