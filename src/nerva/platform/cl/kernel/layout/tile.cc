#include "nerva/platform/cl/kernel/layout/tile.h"

#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

bool TilesTo(const std::vector<long>& in, const std::vector<long>& out) {
  if (in.size() > out.size()) return false;
  const size_t lead = out.size() - in.size();
  for (size_t i = 0; i < in.size(); ++i) {
    const long n = in[i], m = out[lead + i];
    if (n == 0 ? m != 0 : m % n != 0) return false;
  }
  return true;
}

std::pair<Tensor, Tensor> TiledViews(const Tensor& out, const Tensor& input) {
  const auto& in = input.shape().sizes();
  const auto& sizes = out.shape().sizes();
  const size_t lead = sizes.size() - in.size();
  std::vector<long> view_sizes, out_strides, in_strides;
  for (size_t d = 0; d < sizes.size(); ++d) {
    const long n = d < lead ? 1 : in[d - lead];
    const long k = n == 0 ? 1 : sizes[d] / n;
    const long os = out.shape().strides()[d];
    view_sizes.insert(view_sizes.end(), {k, n});
    out_strides.insert(out_strides.end(), {os * n, os});
    in_strides.insert(in_strides.end(), {0, d < lead ? 0 : input.shape().strides()[d - lead]});
  }
  return {ViewOf(out, view_sizes, out_strides), ViewOf(input, view_sizes, in_strides)};
}

TileKernel::TileKernel(const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out)
    : UnaryMoveKernel("Tile", "tile.cl", "Tile", input_opt, input, out_opt, out) {}

bool TileKernel::Verify() const {
  CheckTensor(input_, "input");
  CheckTensor(out_, "out");
  CheckType(out_, input_.dtype(), "out");
  if (!TilesTo(input_.shape().sizes(), out_.shape().sizes())) {
    throw std::runtime_error(StrCat(name(), ": out shape ", out_.shape().sizes(),
                                    " is not a tiling of input ", input_.shape().sizes()));
  }
  return true;
}

void TileKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (out_.shape().size() == 0) return;
  const auto views = TiledViews(out_, input_);
  AddMove(session, views.first, views.second);
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<TileKernel, const TensorOption&, const Buffer&, const TensorOption&, Buffer&>(
          "Tile");
};

}  // namespace cl
}  // namespace nerva
