#include "nerva/platform/cl/kernel/layout/space2depth.h"

#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

SpaceToDepthKernel::SpaceToDepthKernel(const SpaceToDepthOption& option,
                                       const TensorOption& input_opt, const Buffer& input,
                                       const TensorOption& out_opt, Buffer& out)
    : UnaryMoveKernel("SpaceToDepth", "space2depth.cl", "SpaceToDepth", input_opt, input, out_opt,
                      out),
      option_(option) {}

bool SpaceToDepthKernel::Verify() const {
  const auto& in = input_.shape().sizes();
  const long r = option_.block_size;
  if (r < 1) throw std::invalid_argument(StrCat(name(), ": block_size ", r, " must be positive"));
  if (in.size() < 3 || in[in.size() - 2] % r != 0 || in[in.size() - 1] % r != 0) {
    throw std::runtime_error(StrCat(name(), ": input ", in, " needs at least 3 dims and ",
                                    "height and width divisible by block_size ", r));
  }
  std::vector<long> sizes = in;
  const size_t c = in.size() - 3;
  sizes[c] *= r * r;
  sizes[c + 1] /= r;
  sizes[c + 2] /= r;
  CheckUnary(sizes);
  return true;
}

void SpaceToDepthKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (out_.shape().size() == 0) return;
  const auto [deep, spatial] = PixelShuffleViews(out_, input_, option_.block_size, false);
  AddMove(session, deep, spatial);
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<SpaceToDepthKernel, const SpaceToDepthOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("SpaceToDepth");
};

}  // namespace cl
}  // namespace nerva
