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
  const long r = option_.block_size;
  const size_t c = out_.shape().ndim() - 3;
  const auto& os = out_.shape().strides();
  const auto& is = input_.shape().strides();
  // Both seen as (*, C, H, i, W, j): out row h * r + i, column w * r + j;
  // input channel c * r * r + i * r + j, row h, column w.
  std::vector<long> sizes(out_.shape().sizes().begin(), out_.shape().sizes().begin() + c);
  std::vector<long> out_strides(os.begin(), os.begin() + c);
  std::vector<long> in_strides(is.begin(), is.begin() + c);
  const long C = out_.shape().sizes()[c], H = input_.shape().sizes()[c + 1],
             W = input_.shape().sizes()[c + 2];
  sizes.insert(sizes.end(), {C, H, r, W, r});
  out_strides.insert(out_strides.end(),
                     {os[c], os[c + 1] * r, os[c + 1], os[c + 2] * r, os[c + 2]});
  in_strides.insert(in_strides.end(), {is[c] * r * r, is[c + 1], is[c] * r, is[c + 2], is[c]});
  AddMove(session, ViewOf(out_, sizes, out_strides), ViewOf(input_, sizes, in_strides));
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<DepthToSpaceKernel, const DepthToSpaceOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("DepthToSpace");
};

}  // namespace cl
}  // namespace nerva
