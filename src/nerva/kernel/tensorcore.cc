#include "nerva/kernel/tensorcore.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "linvo/matrix.h"
#include "nerva/linvo_type.h"

namespace nerva {

namespace {

constexpr int64_t kEncodeBudget = 0x150000;
constexpr int64_t kEncodeItemSize = 2;

int64_t CeilDiv(int64_t a, int64_t b) {
  return (a + b - 1) / b;
}

}  // namespace

std::tuple<int64_t, int64_t, bool> NeedInsertTransposeForIn0AndOut(int64_t m, int64_t k, int64_t n,
                                                                   int64_t budget,
                                                                   int64_t item_size) {
  auto footprint = [&](int64_t tm, int64_t tk) {
    return CeilDiv(item_size * tm * tk, 256) * 512 + CeilDiv(item_size * n * tm, 256) * 256;
  };
  struct Candidate {
    int64_t tm, granule;
  };
  // The order is deliberate: 512 is tried last.
  const Candidate candidates[] = {{256, 128}, {128, 128}, {64, 128}, {512, 32}};
  for (const Candidate& c : candidates) {
    if (m < c.tm || k % c.granule != 0) continue;
    int64_t tk = (k / 2) % c.granule != 0 ? k : (k / 4) % c.granule == 0 ? k / 4 : k / 2;
    if (tk < c.granule) continue;
    bool fits = true;
    while (footprint(c.tm, tk) > budget) {
      if (tk < 2 * c.granule || tk % (2 * c.granule) != 0) {
        fits = false;
        break;
      }
      tk /= 2;
    }
    if (fits) return {c.tm, tk, false};
  }
  return {m, k, footprint(m, k) > budget};
}

Kernel EncodedConv2D::Create(const std::shared_ptr<IQueueImpl>& queue,
                             const EncodedConv2DOption& option, const TensorOption& input_opt,
                             const Buffer& input, const TensorOption& coef_opt, const Buffer& coef,
                             const TensorOption& input2_opt, const Buffer& input2,
                             const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("EncodedConv2DSecondInput", option, input_opt, input, coef_opt, coef,
                             input2_opt, input2, out_opt, out);
}

Kernel EncodedConv2D::Create(const std::shared_ptr<IQueueImpl>& queue,
                             const EncodedConv2DOption& option, const TensorOption& input_opt,
                             const Buffer& input, const TensorOption& coef_opt, const Buffer& coef,
                             const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("EncodedConv2D", option, input_opt, input, coef_opt, coef, out_opt,
                             out);
}

Kernel EncodedMatMul::Create(const std::shared_ptr<IQueueImpl>& queue,
                             const EncodedMatMulOption& option, const TensorOption& input_opt,
                             const Buffer& input, const TensorOption& coef_opt, const Buffer& coef,
                             const TensorOption& offset_opt, const Buffer& offset,
                             const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("EncodedMatMul", option, input_opt, input, coef_opt, coef, offset_opt,
                             offset, out_opt, out);
}

std::shared_ptr<EncodedCoef> EncodedMatMul::EncodeMatMulCoef(const Session& session, int device,
                                                             EncodeCoefMode mode,
                                                             EncodedMatMulOption& option, int64_t m,
                                                             int64_t k, int64_t n, DataType dtype,
                                                             const void* weight, const void* bias) {
  if (m <= 0 || k <= 0 || n <= 0) {
    throw std::invalid_argument("EncodedMatMul: m, k and n must be positive");
  }
  if (weight == nullptr) throw std::invalid_argument("EncodedMatMul: weight is null");
  const auto [tile_m, tile_k, need_transpose] =
      NeedInsertTransposeForIn0AndOut(m, k, n, kEncodeBudget, kEncodeItemSize);
  option.need_transpose = need_transpose;
  if (need_transpose && !(option.allow_in0_transpose && option.allow_out_transpose)) {
    throw std::invalid_argument("EncodedMatMul case need insert transpose for in0 and output!!!");
  }
  option.tile_m = tile_m;
  option.tile_k = tile_k;
  TensorOption input_opt{Shape({n, 1, m}), dtype};
  TensorOption weight_opt{Shape({k, n, 1, 1}), dtype};
  TensorOption block_opt{Shape({tile_k, n, 1, 1}), dtype};
  TensorOption staged_opt{Shape({n, k, 1, 1}), dtype};
  // The weight, transposed to (n, k), in a zero-filled 16-bit staging buffer.
  linvo::Matrix source({k, n}, ConvertNervaTypeToLinvo(dtype), const_cast<void*>(weight));
  const linvo::Matrix transposed = source.T();
  std::vector<uint16_t> staging(
      std::max<size_t>(static_cast<size_t>(k * n), CeilDiv(transposed.nbytes(), 2)), 0);
  std::memcpy(staging.data(), transposed.data(), transposed.nbytes());
  const void* staged = staging.data();
  return session.impl()->EncodeCoef("EncodeMatMulCoef", session, device, mode, option, input_opt,
                                    weight_opt, block_opt, staged_opt, staged, bias);
}

std::shared_ptr<EncodedCoef> EncodedConv2D::EncodeCoefficient(
    const Session& session, const EncodedConv2DOption& option, const TensorOption& input_opt,
    const TensorOption& weight_opt, const TensorOption& bias_opt, const TensorOption& out_opt,
    const void* weight, const void* bias) {
  return session.impl()->EncodeCoef("EncodeConv2DCoef", session, option, input_opt, weight_opt,
                                    bias_opt, out_opt, weight, bias);
}

void EncodedConv2D::FuseInputZpToBias(int input_zp, const int8_t* weight, const Shape& weight_shape,
                                      const int32_t* bias, int32_t* new_bias) {
  if (weight == nullptr) {
    throw std::invalid_argument("Fuse input zp to bias fail, weights is null.");
  }
  if (bias == nullptr) throw std::invalid_argument("Fuse input zp to bias fail, bias is null.");
  if (new_bias == nullptr) {
    throw std::invalid_argument("Fuse input zp to bias fail, new_bias is null.");
  }
  const long out_channels = weight_shape.empty() ? 0 : weight_shape[0];
  if (out_channels <= 0) return;
  const long k = weight_shape.size() / out_channels;
  // Unsigned arithmetic gives the 32-bit wrap-around without overflow.
  for (long o = 0; o < out_channels; ++o) {
    uint32_t sum = static_cast<uint32_t>(bias[o]) - static_cast<uint32_t>(k);
    for (long i = 0; i < k; ++i)
      sum += static_cast<uint32_t>(static_cast<int32_t>(weight[o * k + i]));
    const uint32_t delta = static_cast<uint32_t>(input_zp) * sum;
    new_bias[o] = static_cast<int32_t>(static_cast<uint32_t>(new_bias[o]) - delta);
  }
}

}  // namespace nerva
