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
  const long r = option_.block_size;
  const size_t c = out_.shape().ndim() - 3;
  const auto& os = out_.shape().strides();
  const auto& is = input_.shape().strides();
  // Both seen as (*, C, i, j, H, W): out channel c * r * r + i * r + j, row h,
  // column w; input row h * r + i, column w * r + j.
  std::vector<long> sizes(out_.shape().sizes().begin(), out_.shape().sizes().begin() + c);
  std::vector<long> out_strides(os.begin(), os.begin() + c);
  std::vector<long> in_strides(is.begin(), is.begin() + c);
  const long C = input_.shape().sizes()[c], H = out_.shape().sizes()[c + 1],
             W = out_.shape().sizes()[c + 2];
  sizes.insert(sizes.end(), {C, r, r, H, W});
  out_strides.insert(out_strides.end(), {os[c] * r * r, os[c] * r, os[c], os[c + 1], os[c + 2]});
  in_strides.insert(in_strides.end(), {is[c], is[c + 1], is[c + 2], is[c + 1] * r, is[c + 2] * r});
  AddMove(session, ViewOf(out_, sizes, out_strides), ViewOf(input_, sizes, in_strides));
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<SpaceToDepthKernel, const SpaceToDepthOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("SpaceToDepth");
};

}  // namespace cl
}  // namespace nerva
