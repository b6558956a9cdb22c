#pragma once

// Option records of the encoded (quantised, tensor-core) operators: what is fused into
// an EncodedMatMul or EncodedConv2D. Every setter engages its stage and returns the
// option itself, so calls chain. The rescale and per-channel rescale stages exclude each
// other: setting one drops the other with a warning, so the last call wins.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace nerva {

// Fused requantisation by one scale: (integer parameter, scale).
using RescaleParam = std::pair<int32_t, float>;
// Fused per-output-channel requantisation: (integer parameter, one scale per channel).
using RescalePerChannelParam = std::pair<int32_t, std::vector<float>>;

struct EncodedMatMulOption {
  bool relu1 = false;  // relu on the result
  // The caller allows the input (in0) and the output to be used transposed, which the
  // encoder may need to tile the problem.
  bool allow_in0_transpose = false;
  bool allow_out_transpose = false;
  // Written by the encoder: the operands cannot be tiled in their stored orientation.
  bool need_transpose = false;
  int64_t tile_m = 0;  // written by the encoder: tile size along M
  int64_t tile_k = 0;  // written by the encoder: tile size along K
  std::optional<RescaleParam> rescale;
  std::optional<RescalePerChannelParam> rescale_pcq;

  EncodedMatMulOption& FuseRelu1(bool enable);
  EncodedMatMulOption& FuseRescale(int param, float scale);
  EncodedMatMulOption& FuseRescalePerChannel(int param, const std::vector<float>& scales);
};

struct EncodedConv2DOption {
  // Fused stages, in the order the device applies them.
  struct MaxPool2DStage {
    size_t kernel_size = 0;
    size_t stride = 0;
  };
  struct PReLUStage {
    float min = 0.0f;
    float max = 0.0f;
    std::vector<float> slopes;  // one negative-side slope per channel
  };
  struct LeakyReLUStage {
    float pos_mul = 0.0f;  // multiplier of positive values
    float neg_mul = 0.0f;  // multiplier of negative values
    float min = 0.0f;
    float max = 0.0f;
  };
  struct ClampStage {
    float min = 0.0f;
    float max = 0.0f;
  };
  // a * x + b * second input + c, clamped to [min, max]; `relu` adds a relu after it.
  struct AddStage {
    float a = 0.0f;
    float b = 0.0f;
    float c = 0.0f;
    float min = 0.0f;
    float max = 0.0f;
    bool relu = false;
  };
  struct MulStage {
    float x1_mul = 0.0f;    // multiplier
    float x2_shift = 0.0f;  // shift
    float min = 0.0f;
    float max = 0.0f;
  };
  struct Depth2SpaceStage {
    size_t block_h = 0;
    size_t block_w = 0;
  };

  // Geometry of the convolution.
  long stride = 1;  // same step along height and width
  long pad_top = 0;
  long pad_bottom = 0;
  long pad_left = 0;
  long pad_right = 0;
  int32_t pad_value = 0;            // constant padding value (quantised)
  int32_t input_zero_point = 0;     // zero point of the quantised input
  bool trans_input_layout = false;  // the input is stored channels-last

  std::optional<bool> relu1;
  std::optional<MaxPool2DStage> max_pool2d;
  std::optional<PReLUStage> prelu;
  std::optional<LeakyReLUStage> leaky_relu;
  std::optional<ClampStage> clamp;  // accepted, but the device program leaves it disabled
  std::optional<AddStage> add;
  std::optional<MulStage> mul;
  std::optional<std::vector<float>> lut;  // look-up table applied to the result
  std::optional<Depth2SpaceStage> depth2space;
  std::optional<RescaleParam> rescale;
  std::optional<RescalePerChannelParam> rescale_pcq;

  EncodedConv2DOption& FuseRelu1(bool enable);
  EncodedConv2DOption& FuseMaxPool2D(size_t kernel_size, size_t stride);
  EncodedConv2DOption& FusePReLU(float min, float max, const std::vector<float>& slopes);
  EncodedConv2DOption& FuseLeakyReLU(float pos_mul, float neg_mul, float min, float max);
  EncodedConv2DOption& FuseClamp(float min, float max);
  EncodedConv2DOption& FuseAdd(float a, float b, float c, float min, float max, bool relu);
  EncodedConv2DOption& FuseMul(float x1_mul, float x2_shift, float min, float max);
  EncodedConv2DOption& FuseLut(const std::vector<float>& table);
  EncodedConv2DOption& FuseDepth2Space(size_t block_h, size_t block_w);
  EncodedConv2DOption& FuseRescale(int param, float scale);
  EncodedConv2DOption& FuseRescalePerChannel(int param, const std::vector<float>& scales);
};

}  // namespace nerva
