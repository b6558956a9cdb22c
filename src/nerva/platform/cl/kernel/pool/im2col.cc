#include "nerva/platform/cl/kernel/pool/im2col.h"

#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

std::string Pair(const std::vector<long>& v) {
  return StrCat("(", v[0], ", ", v[1], ")");
}

}  // namespace

PoolGeometry MakeBlockGeometry(const std::string& op, long height, long width,
                               const std::vector<long>& kernel_size,
                               const std::vector<long>& dilation, const std::vector<long>& padding,
                               const std::vector<long>& stride, bool fold) {
  const std::vector<long> k = ExpandList(op, "kernel_size", kernel_size, 2);
  const std::vector<long> d = ExpandList(op, "dilation", dilation, 2);
  const std::vector<long> p = ExpandList(op, "padding", padding, 2);
  const std::vector<long> s = ExpandList(op, "stride", stride, 2);
  if (k[0] <= 0 || k[1] <= 0) {
    throw std::invalid_argument(StrCat(op, ": kernel size should be greater than zero, but got ",
                                       "kernel_height: ", k[0], " kernel_width: ", k[1]));
  }
  if (s[0] <= 0 || s[1] <= 0) {
    throw std::invalid_argument(
        StrCat(op, ": stride should be greater than zero, but got dH: ", s[0], " dW: ", s[1]));
  }
  if (d[0] <= 0 || d[1] <= 0) {
    throw std::invalid_argument(StrCat(op, ": dilation should be greater than zero, but got ",
                                       "dilation_height: ", d[0], " dilation_width: ", d[1]));
  }
  if (p[0] < 0 || p[1] < 0) {
    throw std::invalid_argument(StrCat(
        op, ": padding should be non-negative, but got pad_height: ", p[0], " pad_width: ", p[1]));
  }
  PoolGeometry g;
  const long image[2] = {height, width};
  for (int i = 0; i < 2; ++i) {
    PoolDim& dim = g.dim[1 + i];
    dim.in = image[i], dim.kernel = k[i], dim.stride = s[i], dim.pad = p[i], dim.dilation = d[i];
    dim.out = PoolOutputSize(image[i], k[i], p[i], s[i], d[i], false);
  }
  if (g.dim[1].out < 1 || g.dim[2].out < 1) {
    const std::string grid = StrCat("(", g.dim[1].out, ", ", g.dim[2].out, ")");
    if (fold) {
      throw std::runtime_error(StrCat(op, ": Given output_size=(", height, ", ", width,
                                      "), kernel_size=", Pair(k), ", dilation=", Pair(d),
                                      ", padding=", Pair(p), ", stride=", Pair(s),
                                      ", calculated shape of the array of sliding blocks as ", grid,
                                      ", which is too small (non-positive)"));
    }
    throw std::runtime_error(StrCat(op, ": Given input with spatial size (", height, ", ", width,
                                    "), kernel_size=", Pair(k), ", dilation=", Pair(d),
                                    ", padding=", Pair(p),
                                    ", calculated shape of the array of sliding blocks as ", grid,
                                    ", but its components must be at least one."));
  }
  return g;
}

Im2colKernel::Im2colKernel(const Im2colOption& option, const TensorOption& input_opt,
                           const Buffer& input, const TensorOption& out_opt, Buffer& out)
    : KernelImpl("Im2col"),
      option_(option),
      input_(input_opt, input, 0),
      output_(out_opt, out, 0) {}

PoolGeometry Im2colKernel::Geometry() const {
  const std::vector<long>& sizes = input_.shape().sizes();
  const size_t r = sizes.size();
  PoolGeometry g = MakeBlockGeometry(name(), sizes[r - 2], sizes[r - 1], option_.kernel_size,
                                     option_.dilation, option_.padding, option_.stride, false);
  g.planes = Product(sizes, 0, r - 2);
  return g;
}

std::vector<long> Im2colKernel::OutputSizes(const PoolGeometry& g) const {
  const std::vector<long>& sizes = input_.shape().sizes();
  const long rows = sizes[sizes.size() - 3] * g.dim[1].kernel * g.dim[2].kernel;
  const long blocks = g.dim[1].out * g.dim[2].out;
  if (sizes.size() == 4) return {sizes[0], rows, blocks};
  return {rows, blocks};
}

bool Im2colKernel::Verify() const {
  CheckDefined(name(), "input", input_);
  const std::vector<long>& sizes = input_.shape().sizes();
  bool ok = sizes.size() == 3 || sizes.size() == 4;
  for (size_t i = sizes.size() == 4 ? 1 : 0; ok && i < sizes.size(); ++i) ok = sizes[i] > 0;
  if (!ok) {
    throw std::runtime_error(StrCat(name(),
                                    ": Expected 3D or 4D (batch mode) tensor with possibly 0 batch "
                                    "size and other non-zero dimensions for input, but got: ",
                                    input_.shape()));
  }
  CheckPoolType(name(), "input", input_);
  CheckPoolOutput(name(), "output", output_, OutputSizes(Geometry()), input_.dtype());
  return true;
}

void Im2colKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const PoolGeometry g = Geometry();
  const long rows = g.planes * g.dim[1].kernel * g.dim[2].kernel;
  const long blocks = g.dim[1].out * g.dim[2].out;
  if (rows * blocks == 0) return;
  input_ = MakeContiguous(*this, session, input_);
  const BuildOption options = PoolBuildOption(input_.dtype());
  // CPU devices: one work item per column row.
  const long column_rows = g.planes * g.dim[1].kernel * g.dim[2].kernel;
  auto unit = session->host_cpu()
                  ? MakeRowUnit(*this, session, "im2col.cl", "im2col_rows", options, column_rows, 1)
                  : MakePlaneItemUnit(*this, session, "im2col.cl", "im2col_items", options,
                                      g.planes, g.dim[1].out * g.dim[2].out);
  unit->SetArg(FlatView(input_)).SetArg(FlatView(output_));
  BindRowGeometry(*unit, g, true);
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<Im2colKernel, const Im2colOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("Im2col");
};

}  // namespace cl
}  // namespace nerva
