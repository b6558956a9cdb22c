#pragma once

// Quantised matrix product on the tensor unit with an encoded coefficient
// ("EncodedMatMul", device program "tensorcore/encoded_matmul.cl"), run as a 1 x 1
// convolution, so input and output are used transposed:
// - input: (K, M), M contiguous, or, when the option
//   allows the in0 transpose and the encoder asked for one, (M, K), read transposed;
//   int8, uint8, int16 or uint16.
// - coefficient: the option describes the weights (N, K), int8 or uint8; the buffer holds
//   the encoded blocks, each of the weights followed by N int32 biases (and N per-channel
//   multipliers with rescale_pcq).
// - offset: int32 byte offsets of the coefficient blocks; word 0 is used.
// - output: (N, M), M contiguous; int8, uint8, int16, uint16 or int32 (saturated).
// tile_m of the option (written by the encoder) splits M into tiles staged in local memory
// (0 or >= M: one launch over the whole product; with a transposed input, the rows that fit
// the local memory make the tile). relu1 and rescale / rescale_pcq are fused
// as tc_frame.h describes. Creation fails on a device without cl_nrv_tensorcore.

#include <memory>

#include "nerva/kernel/quantize.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/tensor_option.h"

namespace nerva {
namespace cl {

class EncodedMatMulKernel : public KernelImpl {
 public:
  EncodedMatMulKernel(const EncodedMatMulOption& option, const TensorOption& input_opt,
                      const Buffer& input, const TensorOption& coef_opt, const Buffer& coef,
                      const TensorOption& offset_opt, const Buffer& offset,
                      const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  bool transposed_input() const { return option_.need_transpose && option_.allow_in0_transpose; }
  void Sizes(long* m, long* n, long* k) const;
  long CoefBlockBytes(long n, long k) const;  // one encoded block: weights and tables

  EncodedMatMulOption option_;
  TensorOption input_opt_, coef_opt_, offset_opt_, out_opt_;
  Buffer input_, coef_, offset_, out_;
};

}  // namespace cl
}  // namespace nerva
