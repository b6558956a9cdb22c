// Encoded-operator options and the zero-point fold.

#include <gtest/gtest.h>

#include <cstdint>
#include <regex>
#include <stdexcept>
#include <vector>

#include "nerva/kernel/tensorcore.h"

namespace nerva {
namespace {

TEST(EncodedOptionTest, SettersChainAndEngageTheirStages) {
  EncodedConv2DOption option;
  option.FuseRelu1(true).FuseMaxPool2D(2, 2).FuseAdd(1, 2, 3, -4, 5, true).FuseDepth2Space(2, 3);
  ASSERT_TRUE(option.relu1 && option.max_pool2d && option.add && option.depth2space);
  EXPECT_TRUE(*option.relu1);
  EXPECT_EQ(option.max_pool2d->stride, 2u);
  EXPECT_FLOAT_EQ(option.add->c, 3.0f);
  EXPECT_TRUE(option.add->relu);
  EXPECT_EQ(option.depth2space->block_w, 3u);
  EXPECT_FALSE(option.prelu || option.leaky_relu || option.clamp || option.mul || option.lut);
  option.FuseMaxPool2D(3, 1);
  EXPECT_EQ(option.max_pool2d->kernel_size, 3u);
}

TEST(EncodedOptionTest, RescaleAndPerChannelRescaleExcludeEachOther) {
  EncodedConv2DOption conv;
  conv.FuseRescalePerChannel(1, {0.5f, 0.25f});
  testing::internal::CaptureStdout();
  conv.FuseRescale(2, 0.125f);
  const std::regex record(
      "\\[[0-9-]+ [0-9:]+\\] \\[W\\] \\[EncodedConv\\] Both rescale_ and rescale_pcq_ are set, "
      " only the last one will be apply\\.\n");
  EXPECT_TRUE(std::regex_match(testing::internal::GetCapturedStdout(), record));
  EXPECT_FALSE(conv.rescale_pcq);
  ASSERT_TRUE(conv.rescale);
  EXPECT_EQ(conv.rescale->first, 2);

  EncodedMatMulOption matmul;
  testing::internal::CaptureStdout();
  matmul.FuseRelu1(true).FuseRescale(1, 0.5f).FuseRescalePerChannel(3, {1.0f});
  EXPECT_NE(testing::internal::GetCapturedStdout().find("only the last one will be apply."),
            std::string::npos);
  EXPECT_TRUE(matmul.relu1);
  EXPECT_FALSE(matmul.rescale);
  ASSERT_TRUE(matmul.rescale_pcq);
  EXPECT_EQ(matmul.rescale_pcq->second, std::vector<float>{1.0f});
}

TEST(FuseInputZpToBiasTest, FoldsPerChannelWithWrapAround) {
  const std::vector<int8_t> weight = {1, -2, 3, 4, 5, -128};
  const std::vector<int32_t> bias = {10, -20};
  std::vector<int32_t> new_bias = {100, 200};
  EncodedConv2D::FuseInputZpToBias(3, weight.data(), Shape{2, 3}, bias.data(), new_bias.data());
  EXPECT_EQ(new_bias, (std::vector<int32_t>{73, 626}));

  new_bias = {100, 200};
  EncodedConv2D::FuseInputZpToBias(0x7fffffff, weight.data(), Shape{2, 3}, bias.data(),
                                   new_bias.data());
  EXPECT_EQ(new_bias, (std::vector<int32_t>{-2147483539, 58}));
}

TEST(FuseInputZpToBiasTest, RejectsNullPointers) {
  const int8_t weight[1] = {0};
  const int32_t bias[1] = {0};
  int32_t new_bias[1] = {0};
  const Shape shape{1, 1};
  auto message = [&](const int8_t* w, const int32_t* b, int32_t* n) {
    try {
      EncodedConv2D::FuseInputZpToBias(1, w, shape, b, n);
    } catch (const std::invalid_argument& e) {
      return std::string(e.what());
    }
    return std::string();
  };
  EXPECT_EQ(message(nullptr, nullptr, nullptr), "Fuse input zp to bias fail, weights is null.");
  EXPECT_EQ(message(weight, nullptr, nullptr), "Fuse input zp to bias fail, bias is null.");
  EXPECT_EQ(message(weight, bias, nullptr), "Fuse input zp to bias fail, new_bias is null.");
  EXPECT_EQ(message(weight, bias, new_bias), "");
}

}  // namespace
}  // namespace nerva
