#include "nerva/kernel/quantize.h"

#include "linvo/util.h"

namespace nerva {
namespace {

// Engages `set` and drops `other`, with a warning when both would be set.
template <typename T, typename U>
void SetExclusive(std::optional<T>& set, std::optional<U>& other, T value) {
  if (other.has_value()) {
    linvo::Logger(linvo::kLogWarning, "EncodedConv", __FILE__, __LINE__)
        << "Both rescale_ and rescale_pcq_ are set, "
        << " only the last one will be apply.";
    other.reset();
  }
  set = std::move(value);
}

}  // namespace

EncodedMatMulOption& EncodedMatMulOption::FuseRelu1(bool enable) {
  relu1 = enable;
  return *this;
}

EncodedMatMulOption& EncodedMatMulOption::FuseRescale(int param, float scale) {
  SetExclusive(rescale, rescale_pcq, RescaleParam(param, scale));
  return *this;
}

EncodedMatMulOption& EncodedMatMulOption::FuseRescalePerChannel(int param,
                                                                const std::vector<float>& scales) {
  SetExclusive(rescale_pcq, rescale, RescalePerChannelParam(param, scales));
  return *this;
}

EncodedConv2DOption& EncodedConv2DOption::FuseRelu1(bool enable) {
  relu1 = enable;
  return *this;
}

EncodedConv2DOption& EncodedConv2DOption::FuseMaxPool2D(size_t kernel_size, size_t stride) {
  max_pool2d = MaxPool2DStage{kernel_size, stride};
  return *this;
}

EncodedConv2DOption& EncodedConv2DOption::FusePReLU(float min, float max,
                                                    const std::vector<float>& slopes) {
  prelu = PReLUStage{min, max, slopes};
  return *this;
}

EncodedConv2DOption& EncodedConv2DOption::FuseLeakyReLU(float pos_mul, float neg_mul, float min,
                                                        float max) {
  leaky_relu = LeakyReLUStage{pos_mul, neg_mul, min, max};
  return *this;
}

EncodedConv2DOption& EncodedConv2DOption::FuseClamp(float min, float max) {
  clamp = ClampStage{min, max};
  return *this;
}

EncodedConv2DOption& EncodedConv2DOption::FuseAdd(float a, float b, float c, float min, float max,
                                                  bool relu) {
  add = AddStage{a, b, c, min, max, relu};
  return *this;
}

EncodedConv2DOption& EncodedConv2DOption::FuseMul(float x1_mul, float x2_shift, float min,
                                                  float max) {
  mul = MulStage{x1_mul, x2_shift, min, max};
  return *this;
}

EncodedConv2DOption& EncodedConv2DOption::FuseLut(const std::vector<float>& table) {
  lut = table;
  return *this;
}

EncodedConv2DOption& EncodedConv2DOption::FuseDepth2Space(size_t block_h, size_t block_w) {
  depth2space = Depth2SpaceStage{block_h, block_w};
  return *this;
}

EncodedConv2DOption& EncodedConv2DOption::FuseRescale(int param, float scale) {
  SetExclusive(rescale, rescale_pcq, RescaleParam(param, scale));
  return *this;
}

EncodedConv2DOption& EncodedConv2DOption::FuseRescalePerChannel(int param,
                                                                const std::vector<float>& scales) {
  SetExclusive(rescale_pcq, rescale, RescalePerChannelParam(param, scales));
  return *this;
}

}  // namespace nerva
