#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "nerva/platform/cl/kernel/layout/layout_frame.h"

namespace nerva {
namespace cl {

// Views of `out` and `input` (equal sizes) whose move tiles the input over
// the output: sizes align from the last
// dimension (missing leading input dimensions count as 1) and each output
// size is a multiple of the input's. Output dimension d of size k * n is seen
// as (k, n): out's strides split, the input repeats with stride 0 along k.
// Requires sizes that tile (see TilesTo).
std::pair<Tensor, Tensor> TiledViews(const Tensor& out, const Tensor& input);
// True when `out` sizes are a tiling of `in` sizes as above.
bool TilesTo(const std::vector<long>& in, const std::vector<long>& out);

// out = torch.tile(input, reps) with the reps implied by the shapes ("Tile",
// tile.cl): out's rank is at least the input's, and every output dimension is
// a multiple of the input's (right-aligned; 0 only where the input has 0 or
// the multiple is 0).
class TileKernel : public UnaryMoveKernel {
 public:
  TileKernel(const TensorOption& input_opt, const Buffer& input, const TensorOption& out_opt,
             Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;
};

}  // namespace cl
}  // namespace nerva
