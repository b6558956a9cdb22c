#pragma once

// "CTCLoss" (ctcloss.cl) and "CTCLossBackward" (ctclossbackward_pre.cl, ctclossbackward.cl):
// torch.nn.functional.ctc_loss and its gradient, in log space.
//
// log_probs is (T, N, C) (or (T, C) for one sample) of float or half; targets are padded
// (N, S) (or (S) for one sample) or, for a batch given as a 1-D tensor, concatenated;
// input_lengths and target_lengths are [N] ([1] for one sample) of int64 or int32, one type.
// loss is [N] under 'none' and [1] under 'mean' (the mean of each loss over its clamped target
// length) and 'sum', of the log_probs type. log_alpha and log_beta are float (N, T, K) tables
// with K at least 2 * (longest target) + 1; log_alpha keeps the forward variables for the
// backward, log_beta is its scratch. grad_output has the loss's shape; neg_log_likelihood is
// [N] (checked for shape only: the gradient recomputes it from log_alpha, so a zero_infinity
// forward's zeros do not hide infinite losses); grad_input has log_probs' shape.
// Values only the device sees are bounded there: input lengths are clamped to [0, T]; a sample
// with a negative target length, one that does not fit K or the targets, or a label outside
// [0, C), reads nothing more and gets a NaN loss and gradient. A sample whose input is too
// short for its target has an infinite loss (0, with a 0 gradient, under zero_infinity).

#include <memory>
#include <string>

#include "nerva/platform/cl/kernel/loss/loss_frame.h"

namespace nerva {
namespace cl {

// Shapes shared by the forward and the gradient.
struct CtcLayout {
  long steps = 0, batch = 1, classes = 0, max_s = 0, total_targets = 0, width = 0;
  bool batched = true, padded = true;
};

class CtcLossKernel : public LossKernel {
 public:
  CtcLossKernel(std::string name, const CTCLossOption& option, Tensor log_probs, Tensor targets,
                Tensor input_lengths, Tensor target_lengths, Tensor grad_output,
                Tensor neg_log_likelihood, Tensor log_alpha, Tensor out, Tensor log_beta,
                bool backward);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  CtcLayout Layout() const;
  CTCLossOption option_;
  Tensor log_probs_, targets_, input_lengths_, target_lengths_, grad_output_, nll_, log_alpha_,
      out_, log_beta_;
  bool backward_;
};

}  // namespace cl
}  // namespace nerva
