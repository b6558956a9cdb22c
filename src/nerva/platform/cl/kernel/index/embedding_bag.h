#pragma once

// "EmbeddingBag" (embedding_bag.cl): torch.nn.functional.embedding_bag(input, weight, offsets,
// mode, per_sample_weights, include_last_offset, padding_idx) with EmbeddingBagOption; the
// result is the first output of PyTorch's operator.
// - weight [rows, D], float or half; out [bags, D] of weight's type.
// - indices int32 or int64: 1-D with offsets (1-D, int32 or int64; bags = its length, minus one
//   under include_last_offset), or 2-D [bags, n] with offsets left out (fixed bags of n).
// - per_sample_weights: left out, or indices' shape and weight's type, with mode kSum only.
// - padding_idx >= 0 names a row whose occurrences are skipped (they count for no mean);
//   negative means none.
// An empty bag gives zeros in every mode. Device-side data the host cannot see is bounded:
// offsets are clamped to [0, number of indices] (a decreasing pair gives an empty bag), and an
// index outside [0, rows) is skipped like padding (PyTorch raises).
// CPUs give each work item a whole bag (64-column float16 sums, prefetching rows ahead); GPUs a
// 16-column slice of one.

#include <memory>
#include <string>

#include "nerva/kernel/base_option.h"
#include "nerva/platform/cl/kernel/index/index_frame.h"

namespace nerva {
namespace cl {

class EmbeddingBagKernel : public IndexFrameKernel {
 public:
  EmbeddingBagKernel(std::string name, const EmbeddingBagOption& option, Tensor weight,
                     Tensor indices, Tensor offsets, Tensor per_sample_weights, Tensor out);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  long Bags() const;

  EmbeddingBagOption option_;
  Tensor weight_, indices_, offsets_, psw_, out_;
};

// Checks that `mode` is one of the three.
void CheckBagMode(const std::string& op, EmbeddingBagMode mode);

}  // namespace cl
}  // namespace nerva
