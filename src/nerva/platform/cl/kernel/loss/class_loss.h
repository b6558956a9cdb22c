#pragma once

// The class-index losses: "NllLoss"/"NllLossNoWeight" (nllloss.cl), "CrossEntropyLoss"/
// "CrossEntropyLossNoWeight" (cross_entropy_loss.cl) and "NllLossBackward"/
// "NllLossBackwardNoWeight" (nlllossbackward.cl), with PyTorch's semantics.
//
// input is (N, C, d1, ..., dk) with target (N, d1, ..., dk), or (C) with target [1]; input,
// weight ([C], optional), out, total_weight and the gradients are float or half of the input's
// type; target is int64 or int32. The loss has the target's shape under 'none' and shape [1]
// under 'mean' and 'sum'; 'mean' divides by the summed weights of the counted targets (NaN when
// every target is ignored). total_weight ([1]) receives that sum under every reduction.
// CrossEntropyLoss takes logits and applies label_smoothing in [0, 1].
// A target equal to ignore_index counts for nothing. Target values are only known on the
// device: any other value outside [0, C) reads no memory, gives a NaN loss for its item (and
// so a NaN reduced loss and total weight), and a zero gradient row.

#include <memory>
#include <string>
#include <vector>

#include "nerva/platform/cl/kernel/loss/loss_frame.h"

namespace nerva {
namespace cl {

// Shape rules shared by the forward and the gradient.
struct ClassLayout {
  long outer = 1, classes = 1, inner = 1;
  std::vector<long> target_sizes;
};

class ClassLossKernel : public LossKernel {
 public:
  ClassLossKernel(std::string name, std::string program, LossReduction reduction, long ignore_index,
                  float label_smoothing, Tensor input, Tensor target, Tensor weight, Tensor out,
                  Tensor total_weight);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  std::string program_;
  long ignore_index_;
  float label_smoothing_;
  Tensor input_, target_, weight_, out_, total_weight_;
};

class NllLossBackwardKernel : public LossKernel {
 public:
  NllLossBackwardKernel(std::string name, const NllLossBackwardOption& option, Tensor grad_output,
                        Tensor input, Tensor target, Tensor weight, Tensor total_weight,
                        Tensor grad_input);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  long ignore_index_;
  Tensor grad_output_, input_, target_, weight_, total_weight_, grad_input_;
};

}  // namespace cl
}  // namespace nerva
