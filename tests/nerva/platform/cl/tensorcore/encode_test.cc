// Tile choice, zero-point fold and the coefficient encoders of the encoded operators.

#include <cstdint>
#include <limits>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "nerva/kernel/tensorcore.h"
#include "nerva/platform/cl/cl_test_util.h"
#include "nerva/test_util.h"

namespace nerva {
namespace {

struct TileCase {
  int64_t m, k, n;
  int64_t tm, tk;
  bool transpose;
};

TEST(TileChoiceTest, WalksEveryCandidateAndFallback) {
  const TileCase cases[] = {
      {300, 1024, 64, 256, 256, false},    // first candidate, tk = k / 4
      {256, 8192, 64, 256, 1024, false},   // tk = k / 4 = 2048 halved once
      {256, 1024, 5000, 128, 128, false},  // 256 fails after halving; 128 halves once
      {200, 256, 64, 128, 128, false},     // m < 256; tk = k / 2
      {100, 128, 64, 64, 128, false},      // only 64 fits m; tk = k
      {600, 96, 64, 512, 96, false},       // k not a multiple of 128: 512 with granule 32
      {100, 96, 64, 100, 96, false},       // no candidate; the whole problem fits
      {100, 96, 100000, 100, 96, true},    // no candidate; the whole problem does not fit
      {600, 96, 3000, 600, 96, true},      // 512 cannot halve 96; the whole does not fit
  };
  for (const TileCase& c : cases) {
    EXPECT_EQ(NeedInsertTransposeForIn0AndOut(c.m, c.k, c.n, 0x150000, 2),
              std::make_tuple(c.tm, c.tk, c.transpose))
        << c.m << " x " << c.k << " x " << c.n;
  }
}

TEST(ZeroPointFoldTest, WrapsAroundIn32Bits) {
  const std::vector<int8_t> weight = {127, 127, 127, -128, -128, -128, 5, -7};
  const std::vector<int32_t> bias = {std::numeric_limits<int32_t>::max() - 3,
                                     std::numeric_limits<int32_t>::min() + 2};
  std::vector<int32_t> new_bias = {std::numeric_limits<int32_t>::min() + 1, 77};
  const std::vector<int32_t> start = new_bias;
  const int zp = 1 << 20;
  EncodedConv2D::FuseInputZpToBias(zp, weight.data(), Shape({2, 4}), bias.data(), new_bias.data());
  for (int o = 0; o < 2; ++o) {
    int64_t s = static_cast<int64_t>(bias[o]) - 4;
    for (int k = 0; k < 4; ++k) s += weight[o * 4 + k];
    const uint64_t expect =
        static_cast<uint64_t>(start[o]) - static_cast<uint64_t>(zp) * static_cast<uint64_t>(s);
    EXPECT_EQ(new_bias[o], static_cast<int32_t>(static_cast<uint32_t>(expect))) << o;
  }
  EXPECT_THROW_HAS(
      EncodedConv2D::FuseInputZpToBias(1, nullptr, Shape({2, 4}), bias.data(), new_bias.data()),
      std::invalid_argument, {"Fuse input zp to bias fail, weights is null."});
  EXPECT_THROW_HAS(
      EncodedConv2D::FuseInputZpToBias(1, weight.data(), Shape({2, 4}), nullptr, new_bias.data()),
      std::invalid_argument, {"Fuse input zp to bias fail, bias is null."});
  EXPECT_THROW_HAS(
      EncodedConv2D::FuseInputZpToBias(1, weight.data(), Shape({2, 4}), bias.data(), nullptr),
      std::invalid_argument, {"Fuse input zp to bias fail, new_bias is null."});
}

TEST(EncodeCoefTest, MatMulTilesThenAsksThePlatform) {
  Session& session = cl::testing::TestSession();
  std::vector<int8_t> weight(96 * 3000, 3);
  std::vector<int32_t> bias(3000, 1);
  EncodedMatMulOption option;
  EXPECT_THROW_HAS(EncodedMatMul::EncodeMatMulCoef(session, 0, kEncodeCoefDefault, option, 600, 96,
                                                   3000, kInt8, weight.data(), bias.data()),
                   std::invalid_argument,
                   {"EncodedMatMul case need insert transpose for in0 and output!!!"});
  EXPECT_TRUE(option.need_transpose);
  option.allow_in0_transpose = option.allow_out_transpose = true;
  EXPECT_THROW_HAS(EncodedMatMul::EncodeMatMulCoef(session, 0, kEncodeCoefDefault, option, 600, 96,
                                                   3000, kInt8, weight.data(), bias.data()),
                   std::runtime_error, {"CL not support CoefEncoder: EncodeMatMulCoef"});
  EXPECT_EQ(option.tile_m, 600);
  EXPECT_EQ(option.tile_k, 96);
  EncodedMatMulOption tiled;
  EXPECT_THROW_HAS(EncodedMatMul::EncodeMatMulCoef(session, 0, kEncodeCoefDefault, tiled, 300, 1024,
                                                   64, kInt8, weight.data(), bias.data()),
                   std::runtime_error, {"CL not support CoefEncoder: EncodeMatMulCoef"});
  EXPECT_FALSE(tiled.need_transpose);
  EXPECT_EQ(tiled.tile_m, 256);
  EXPECT_EQ(tiled.tile_k, 256);
}

TEST(EncodeCoefTest, Conv2DAsksThePlatform) {
  const std::vector<int8_t> weight(16, 1);
  const std::vector<int32_t> bias(4, 0);
  const TensorOption in{Shape({1, 1, 4, 4}), kInt8}, w{Shape({4, 1, 2, 2}), kInt8};
  const TensorOption b{Shape({4}), kInt32}, out{Shape({1, 4, 3, 3}), kInt8};
  EXPECT_THROW_HAS(EncodedConv2D::EncodeCoefficient(cl::testing::TestSession(), {}, in, w, b, out,
                                                    weight.data(), bias.data()),
                   std::runtime_error, {"CL not support CoefEncoder: EncodeConv2DCoef"});
  Session cpu("cpu", 0);
  EXPECT_THROW_HAS(
      EncodedConv2D::EncodeCoefficient(cpu, {}, in, w, b, out, weight.data(), bias.data()),
      std::runtime_error, {"CPU not support CoefEncoder"});
}

}  // namespace
}  // namespace nerva
