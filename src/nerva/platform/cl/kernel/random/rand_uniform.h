#pragma once

// Uniform random values on the device ("RandUniform" and "RandIntUniform").
//
// The output is filled as one flat run: each work item writes four values
// drawn from its own Philox stream (subsequence = its global id). The float
// program ("random_uniform.cl") compiles only for the 4-wide layout, so an
// output of fewer than 4 elements, or of exactly 3, fails in the device build
// ("#error: Only Support VEC_SIZE == 4", reported as a std::runtime_error
// "Compile CL kernel ..."); the integer program accepts widths 1 to 4.
//
// The seed and offset of a launch are fixed at creation: the option's own seed
// with offset 0 when `use_seed` is set, else the session's seed and offset, and
// the session's offset then advances by 4, so the next kernel draws other numbers.

#include <memory>

#include "nerva/kernel/random_option.h"
#include "nerva/platform/cl/kernel/random/philox.h"

namespace nerva {
namespace cl {

// kFloating: float or half output in [low, high) from RandOption; otherwise an
// integer output in [low, high) from RandIntOption (word mod (high - low) + low).
template <bool kFloating, typename Option>
class RandUniformKernel : public RandomFillKernel {
 public:
  RandUniformKernel(const Option& option, const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  Option option_;
};

using RandFloatUniformKernel = RandUniformKernel<true, RandOption>;
using RandIntUniformKernel = RandUniformKernel<false, RandIntOption>;

}  // namespace cl
}  // namespace nerva
