#pragma once

// "EmbeddingBagBackward" (embedding_bag_backward_pre.cl, embedding_bag_backward.cl): the
// gradient of "EmbeddingBag" with respect to weight (PyTorch's _embedding_bag_dense_backward)
// with EmbeddingBagBackwardOption.
// - grad [bags, D], float or half; grad_weight [rows, D] of grad's type (rows from its shape).
// - indices int32/int64 of L elements; each position's bag comes from offset2bag (L elements,
//   int32/int64) when given, else from offsets (1-D; 2-D indices need offset2bag).
// - max_indices [bags, D] (int32/int64) is required in mode kMax and read only there;
//   per_sample_weights (L elements, grad's type) only in mode kSum; either may be left out.
// - Mean divides by the bag's size: its indices that are in range and not padding_idx.
// - scale_grad_by_freq divides by the number of occurrences of the row (kSum and kMean, as
//   PyTorch); rows equal to padding_idx (>= 0) get no gradient.
// Indices outside [0, rows), bag numbers outside [0, bags) and negative max_indices (empty
// bags) are skipped. Gradients accumulate in float (sums within rounding, in any order).

#include <memory>
#include <string>

#include "nerva/kernel/base_option.h"
#include "nerva/platform/cl/kernel/index/index_frame.h"

namespace nerva {
namespace cl {

class EmbeddingBagBackwardKernel : public IndexFrameKernel {
 public:
  EmbeddingBagBackwardKernel(std::string name, const EmbeddingBagBackwardOption& option,
                             Tensor grad, Tensor indices, Tensor offsets, Tensor offset2bag,
                             Tensor max_indices, Tensor per_sample_weights, Tensor grad_weight);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  EmbeddingBagBackwardOption option_;
  Tensor grad_, indices_, offsets_, offset2bag_, max_indices_, psw_, grad_weight_;
};

}  // namespace cl
}  // namespace nerva
