#pragma once

// The element-wise losses and their gradients: "MseLoss" (mseloss.cl), "L1Loss" (l1loss.cl),
// "SoftMarginLoss" (softmarginloss.cl), "BCELoss"/"BCELossNoWeight" (bce_loss.cl),
// "BCEWithLogitsLoss", "BCEWithLogitsLossWithWeight", "BCEWithLogitsLossWithPosWeight"
// (bce_with_logits_loss.cl), "MseLossBackward" (mselossbackward.cl), "SoftMarginLossBackward"
// (softmarginlossbackward.cl) and "BinaryCrossEntropyBackward"
// (binary_cross_entropy_backward.cl), with PyTorch's semantics.
//
// Input, target, weights and gradients are float or half, all of the input's type; target and
// grad_input have the input's shape; weight and pos_weight broadcast to it (pos_weight usually
// has the size of the last dimension). The loss has the input's shape under 'none' and shape
// [1] under 'mean' and 'sum' ('mean' of no elements is NaN); grad_output has the loss's shape.
// Any layout is accepted: strided or broadcast inputs are first copied to contiguous memory.

#include <memory>
#include <string>

#include "nerva/platform/cl/kernel/loss/loss_frame.h"

namespace nerva {
namespace cl {

// A forward loss over input, target and optional weight / pos_weight (empty tensors when left out).
class PointwiseLossKernel : public LossKernel {
 public:
  PointwiseLossKernel(std::string name, std::string program, LossReduction reduction, Tensor input,
                      Tensor target, Tensor weight, Tensor pos_weight, Tensor out, bool weighted);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  std::string program_;
  Tensor input_, target_, weight_, pos_weight_, out_;
  bool weighted_;  // the program takes weight and pos_weight arguments
};

// A loss gradient over grad_output, input, target and an optional weight.
class PointwiseLossBackwardKernel : public LossKernel {
 public:
  PointwiseLossBackwardKernel(std::string name, std::string program, LossReduction reduction,
                              Tensor grad_output, Tensor input, Tensor target, Tensor weight,
                              Tensor grad_input, bool weighted);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  std::string program_;
  Tensor grad_output_, input_, target_, weight_, grad_input_;
  bool weighted_;
};

}  // namespace cl
}  // namespace nerva
