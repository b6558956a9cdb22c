#pragma once

// Bernoulli draws and training-mode dropout on the device ("Bernoulli",
// "DropoutTrain").
//
// Both read a contiguous input and write outputs of the same shape, a vector
// per work item from its own Philox stream (layout and generator state as in
// rand_uniform.h; the session's offset advances by 4).
// - Bernoulli: out = (u <= p) for the probability p of each input element
//   (float or half); the output may be float, half, an integer type or bool.
//   Widths 1 to 4.
// - DropoutTrain: mask = (u > p), out = in * mask / (1 - p) (0 where p is 1),
//   the mask stored as one byte (DataType::kBool, kInt8 or kUInt8). The drop
//   probability is a build definition, so each p builds its own program. The
//   program compiles only for the 4-wide layout: fewer than 4 elements, or
//   exactly 3, fail in the device build ("#error: Only Support VEC_SIZE == 4").

#include <memory>

#include "nerva/kernel/random_option.h"
#include "nerva/platform/cl/kernel/random/philox.h"

namespace nerva {
namespace cl {

class BernoulliKernel : public KernelImpl {
 public:
  BernoulliKernel(const BernoulliOption& option, const TensorOption& in_opt, const Buffer& in,
                  const TensorOption& out_opt, Buffer& out);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  BernoulliOption option_;
  Tensor in_, out_;
};

class DropoutTrainKernel : public KernelImpl {
 public:
  DropoutTrainKernel(const DropoutTrainOption& option, const TensorOption& in_opt, const Buffer& in,
                     const TensorOption& out_opt, Buffer& out, const TensorOption& mask_opt,
                     Buffer& mask);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  DropoutTrainOption option_;
  Tensor in_, out_, mask_;
};

}  // namespace cl
}  // namespace nerva
