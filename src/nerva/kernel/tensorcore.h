#pragma once

// Front-ends of the tensor-core operators that run on encoded coefficients (weights and
// bias prepared once, in a device-specific layout, ahead of execution).

#include <cstdint>
#include <memory>
#include <tuple>
#include <vector>

#include "nerva/buffer.h"
#include "nerva/encoded_coef.h"
#include "nerva/kernel.h"
#include "nerva/queue.h"
#include "nerva/session.h"
#include "nerva/shape.h"
#include "nerva/tensor_option.h"

#include "nerva/kernel/quantize.h"

namespace nerva {

// Tile choice of the encoded matrix product: the first of the candidate row tiles
// tm = 256, 128, 64 (k a multiple of 128) and 512 (k a multiple of 32) that m allows,
// with the K tile tk starting at k, k/4 or k/2 and halved (in steps that stay multiples
// of the granule) until the footprint
//   ceil(item_size * tm * tk / 256) * 512 + ceil(item_size * n * tm / 256) * 256
// fits `budget` bytes. Returns (tm, tk, need_transpose); when no candidate fits, the
// whole problem is one tile (m, k), and need_transpose tells whether it exceeds the budget.
std::tuple<int64_t, int64_t, bool> NeedInsertTransposeForIn0AndOut(int64_t m, int64_t k, int64_t n,
                                                                   int64_t budget,
                                                                   int64_t item_size);

// Quantised 2-D convolution with an encoded coefficient (weights and bias) and fused stages.
// "EncodedConv2DSecondInput": with a second input tensor for the fused add stage.
class EncodedConv2D {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const EncodedConv2DOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& coef_opt, const Buffer& coef,
                       const TensorOption& input2_opt, const Buffer& input2,
                       const TensorOption& out_opt, Buffer& out);
  // "EncodedConv2D": input and encoded coefficient only.
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const EncodedConv2DOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& coef_opt, const Buffer& coef,
                       const TensorOption& out_opt, Buffer& out);

  // Folds the input zero point into the bias: for each output channel o (OC = the first
  // weight dimension, K = the weight's elements per channel),
  //   new_bias[o] -= input_zp * (bias[o] - K + sum_k weight[o * K + k])
  // in 32-bit wrap-around arithmetic. new_bias is read as well as written, so the caller
  // initialises it. Throws std::invalid_argument on a null pointer.
  static void FuseInputZpToBias(int input_zp, const int8_t* weight, const Shape& weight_shape,
                                const int32_t* bias, int32_t* new_bias);

  // Encodes weights and bias for the session's device through its encoder
  // "EncodeConv2DCoef", called with (session, option, input, weight, bias, output options,
  // weight, bias).
  static std::shared_ptr<EncodedCoef> EncodeCoefficient(
      const Session& session, const EncodedConv2DOption& option, const TensorOption& input_opt,
      const TensorOption& weight_opt, const TensorOption& bias_opt, const TensorOption& out_opt,
      const void* weight, const void* bias);
};

// Quantised matrix product with an encoded coefficient; offset holds the byte offsets of the
// coefficient's K blocks.
class EncodedMatMul {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const EncodedMatMulOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& coef_opt, const Buffer& coef,
                       const TensorOption& offset_opt, const Buffer& offset,
                       const TensorOption& out_opt, Buffer& out);

  // Encodes the (k, n) weight and the bias of an m x k x n product: chooses the tiles
  // (budget 0x150000 bytes, item size 2) and writes need_transpose, tile_m and tile_k into
  // `option`; throws std::invalid_argument when a transpose is needed and the option does
  // not allow both the in0 and the output transpose. The weight is staged transposed,
  // (n, k), in a zero-filled 16-bit buffer and passed to the session's encoder
  // "EncodeMatMulCoef" with (session, device, mode, option, the input (n, 1, m), weight
  // (k, n, 1, 1), K block (tk, n, 1, 1) and staged weight (n, k, 1, 1) options, the
  // staged weight, bias).
  static std::shared_ptr<EncodedCoef> EncodeMatMulCoef(const Session& session, int device,
                                                       EncodeCoefMode mode,
                                                       EncodedMatMulOption& option, int64_t m,
                                                       int64_t k, int64_t n, DataType dtype,
                                                       const void* weight, const void* bias);
};

}  // namespace nerva
