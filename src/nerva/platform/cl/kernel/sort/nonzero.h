#pragma once

// Coordinates of the non-zero elements ("Nonzero"), as torch.nonzero, in
// three launches: flags, a scan that places each non-zero element's flat
// index, and the unravel into coordinates.
//
// How the caller learns the number of non-zero elements: the kernel writes it
// to `count` ([1], int64 or int32) and fills the first min(count, M) rows of
// `out` ([M, rank], int64 or int32, rows outermost dimension first, in
// row-major order of the elements); rows past that are left untouched. M is
// the caller's choice: the input's element count always suffices; a caller
// that needs an exact-size result reads `count` and narrows or re-runs.
// Scratch: flags ([numel], int32) and flat_indices ([M], int32 or int64).
// The input is contiguous, float, half, an integer type or bool, rank 1 to 8;
// NaN counts as non-zero. An empty input writes count 0.

#include <memory>

#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

class NonzeroKernel : public KernelImpl {
 public:
  NonzeroKernel(const TensorOption& input_opt, const Buffer& input, const TensorOption& flags_opt,
                const Buffer& flags, const TensorOption& flat_indices_opt,
                const Buffer& flat_indices, const TensorOption& count_opt, const Buffer& count,
                const TensorOption& out_opt, const Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  Tensor input_, flags_, flat_indices_, count_, out_;
};

}  // namespace cl
}  // namespace nerva
