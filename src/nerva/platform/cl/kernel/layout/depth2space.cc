#include "nerva/platform/cl/kernel/layout/depth2space.h"

#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

DepthToSpaceKernel::DepthToSpaceKernel(const DepthToSpaceOption& option,
                                       const TensorOption& input_opt, const Buffer& input,
                                       const TensorOption& out_opt, Buffer& out)
    : UnaryMoveKernel("DepthToSpace", "depth2space.cl", "DepthToSpace", input_opt, input, out_opt,
                      out),
      option_(option) {}

bool DepthToSpaceKernel::Verify() const {
  const auto& in = input_.shape().sizes();
  const long r = option_.block_size;
  if (r < 1) throw std::invalid_argument(StrCat(name(), ": block_size ", r, " must be positive"));
  if (in.size() < 3 || in[in.size() - 3] % (r * r) != 0) {
    throw std::runtime_error(StrCat(name(), ": input ", in, " needs at least 3 dims and ",
                                    "channels divisible by block_size^2 = ", r * r));
  }
  std::vector<long> sizes = in;
  const size_t c = in.size() - 3;
  sizes[c] /= r * r;
  sizes[c + 1] *= r;
  sizes[c + 2] *= r;
  CheckUnary(sizes);
  return true;
}

void DepthToSpaceKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (out_.shape().size() == 0) return;
  const auto [deep, spatial] = PixelShuffleViews(input_, out_, option_.block_size, true);
  AddMove(session, spatial, deep);
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<DepthToSpaceKernel, const DepthToSpaceOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("DepthToSpace");
};

}  // namespace cl
}  // namespace nerva
