#pragma once

// Normal, log-normal and exponential values on the device ("RandNormal",
// "LogNormal", "Exponential"), float or half outputs.
//
// Layout and generator state as for RandUniform (see rand_uniform.h): four
// values per work item from its own Philox stream. The normal and log-normal
// programs compile only for the 4-wide layout (an output of fewer than 4
// elements, or of exactly 3, fails in the device build with "#error: Only
// Support VEC_SIZE == 4"); the exponential program takes widths 1 to 4.
//
// Normal values come from Box-Muller on pairs of words; drawing from the
// session advances its offset by the vector width (4). Log-normal values are
// exp(mean + std * n). The exponential program writes, for u uniform in (0, 1),
// t = (1 - u) / (u + FLT_EPSILON) + FLT_EPSILON and lambd * exp(-lambd * t);
// it advances the offset like the uniform draws.

#include <memory>

#include "nerva/kernel/random_option.h"
#include "nerva/platform/cl/kernel/random/philox.h"

namespace nerva {
namespace cl {

// Normal values with the option's mean and std (applied only when they differ
// from 0 and 1).
class RandNormalKernel : public RandomFillKernel {
 public:
  RandNormalKernel(const RandNOption& option, const TensorOption& out_opt, Buffer& out);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  RandNOption option_;
};

class LogNormalKernel : public RandomFillKernel {
 public:
  LogNormalKernel(const LogNormalOption& option, const TensorOption& out_opt, Buffer& out);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  LogNormalOption option_;
};

class ExponentialKernel : public RandomFillKernel {
 public:
  ExponentialKernel(const ExponentialOption& option, const TensorOption& out_opt, Buffer& out);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  ExponentialOption option_;
};

}  // namespace cl
}  // namespace nerva
