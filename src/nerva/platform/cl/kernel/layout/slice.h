#pragma once

#include <memory>
#include <vector>

#include "nerva/kernel/base.h"
#include "nerva/platform/cl/kernel/layout/layout_frame.h"

namespace nerva {
namespace cl {

// The kept positions of each sliced dimension (the leading ones).
struct SliceRanges {
  std::vector<long> starts;
  std::vector<long> steps;
  std::vector<long> counts;
};

// PyTorch's slice arguments on the leading dimensions of `sizes`: a negative
// start or end counts from the end, then both are clamped to [0, size] (an end
// below the start gives an empty dimension). `steps` is empty (all 1) or has
// one entry per start, each positive. Throws, naming `op`: std::invalid_argument
// for count mismatches and steps below 1, std::out_of_range for more entries
// than dimensions.
SliceRanges NormalizeSlice(const std::string& op, const std::vector<long>& sizes,
                           const std::vector<long>& starts, const std::vector<long>& ends,
                           const std::vector<long>& steps);
// The sizes of `sizes` after the slice.
std::vector<long> SlicedSizes(const std::vector<long>& sizes, const SliceRanges& ranges);
// The view of `t` that the slice selects.
Tensor SliceView(const Tensor& t, const SliceRanges& ranges);

// out = input[starts[0]:ends[0]:steps[0], starts[1]:..., ...] ("Slice",
// slice.cl): any strided input, any element type (bits are moved).
class SliceKernel : public LayoutKernel {
 public:
  SliceKernel(const SliceOption& option, const TensorOption& input_opt, const Buffer& input,
              const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  SliceOption option_;
  Tensor input_, out_;
};

}  // namespace cl
}  // namespace nerva
