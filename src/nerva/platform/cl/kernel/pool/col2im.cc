#include "nerva/platform/cl/kernel/pool/col2im.h"

#include <stdexcept>

#include "nerva/platform/cl/kernel/pool/im2col.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

Col2imKernel::Col2imKernel(const Col2imOption& option, const TensorOption& input_opt,
                           const Buffer& input, const TensorOption& out_opt, Buffer& out)
    : KernelImpl("Col2im"),
      option_(option),
      input_(input_opt, input, 0),
      output_(out_opt, out, 0) {}

PoolGeometry Col2imKernel::Geometry() const {
  const std::vector<long> image = ExpandList(name(), "output_size", option_.output_size, 2);
  PoolGeometry g = MakeBlockGeometry(name(), image[0], image[1], option_.kernel_size,
                                     option_.dilation, option_.padding, option_.stride, true);
  const std::vector<long>& sizes = input_.shape().sizes();
  const size_t r = sizes.size();
  const long kernel = g.dim[1].kernel * g.dim[2].kernel;
  if (sizes[r - 2] % kernel != 0) {
    throw std::runtime_error(StrCat(
        name(), ": Expected size of input's dimension 1",
        " to be divisible by the product of kernel_size, but got input.size(1)=", sizes[r - 2],
        " and kernel_size=(", g.dim[1].kernel, ", ", g.dim[2].kernel, ")"));
  }
  const long blocks = g.dim[1].out * g.dim[2].out;
  if (sizes[r - 1] != blocks) {
    throw std::runtime_error(
        StrCat(name(), ": Given output_size=(", image[0], ", ", image[1], "), kernel_size=(",
               g.dim[1].kernel, ", ", g.dim[2].kernel, "), dilation=(", g.dim[1].dilation, ", ",
               g.dim[2].dilation, "), padding=(", g.dim[1].pad, ", ", g.dim[2].pad, "), stride=(",
               g.dim[1].stride, ", ", g.dim[2].stride, "), expected size of input's dimension 2",
               " to match the calculated number of sliding blocks ", g.dim[1].out, " * ",
               g.dim[2].out, " = ", blocks, ", but got input.size(2)=", sizes[r - 1], "."));
  }
  g.planes = Product(sizes, 0, r - 2) * (sizes[r - 2] / kernel);
  return g;
}

bool Col2imKernel::Verify() const {
  CheckDefined(name(), "input", input_);
  const std::vector<long>& sizes = input_.shape().sizes();
  bool ok = sizes.size() == 2 || sizes.size() == 3;
  for (size_t i = sizes.size() == 3 ? 1 : 0; ok && i < sizes.size(); ++i) ok = sizes[i] > 0;
  if (!ok) {
    throw std::runtime_error(StrCat(name(),
                                    ": Expected 2D or 3D (batch mode) tensor with possibly 0 batch "
                                    "size and non-zero dimensions for input, but got: ",
                                    input_.shape()));
  }
  CheckPoolType(name(), "input", input_);
  const PoolGeometry g = Geometry();
  const long kernel = g.dim[1].kernel * g.dim[2].kernel;
  std::vector<long> expected{sizes[sizes.size() - 2] / kernel, g.dim[1].in, g.dim[2].in};
  if (sizes.size() == 3) expected.insert(expected.begin(), sizes[0]);
  CheckPoolOutput(name(), "output", output_, expected, input_.dtype());
  return true;
}

void Col2imKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const PoolGeometry g = Geometry();
  if (g.InCount() == 0) return;
  input_ = MakeContiguous(*this, session, input_);
  auto unit =
      MakePoolUnit(*this, session, "col2im.cl", "col2im", PoolBuildOption(input_.dtype()), g, true);
  unit->SetArg(FlatView(input_)).SetArg(FlatView(output_));
  BindGeometry(*unit, g);
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<Col2imKernel, const Col2imOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("Col2im");
};

}  // namespace cl
}  // namespace nerva
