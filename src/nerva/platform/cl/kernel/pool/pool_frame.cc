#include "nerva/platform/cl/kernel/pool/pool_frame.h"

#include <algorithm>
#include <stdexcept>

#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

// Floor division (torch's div_rtn).
long FloorDiv(long a, long b) {
  long q = a / b;
  if ((a % b != 0) && ((a < 0) != (b < 0))) --q;
  return q;
}

// "kT: 1 kH: 2 kW: 3" style text of one parameter over the used dimensions.
std::string DimsText(const std::string& prefix, const std::array<long, 3>& v, int spatial,
                     const char* const* names) {
  std::string text;
  for (int i = 3 - spatial; i < 3; ++i) {
    text += StrCat(i == 3 - spatial ? "" : " ", prefix, names[i], ": ", v[i]);
  }
  return text;
}

const char* const kDimNames[3] = {"T", "H", "W"};

}  // namespace

long PoolOutputSize(long in, long kernel, long pad, long stride, long dilation, bool ceil_mode) {
  long out =
      FloorDiv(in + 2 * pad - dilation * (kernel - 1) - 1 + (ceil_mode ? stride - 1 : 0), stride) +
      1;
  if (ceil_mode && (out - 1) * stride >= in + pad) --out;
  return out;
}

std::vector<long> ExpandList(const std::string& op, const std::string& arg,
                             const std::vector<long>& list, int n,
                             const std::vector<long>& fallback) {
  if (list.empty() && !fallback.empty()) return ExpandList(op, arg, fallback, n);
  if (list.size() == 1) return std::vector<long>(n, list[0]);
  if (static_cast<int>(list.size()) != n) {
    throw std::invalid_argument(StrCat(op, ": ", arg,
                                       " must either be a single int, or a tuple of ", n,
                                       " ints, got ", Shape(list)));
  }
  return list;
}

std::vector<long> CheckPlanes(const std::string& op, const std::string& arg, const Tensor& tensor,
                              int spatial, bool allow_batch) {
  CheckDefined(op, arg, tensor);
  CheckPoolType(op, arg, tensor);
  const std::vector<long>& sizes = tensor.shape().sizes();
  const int rank = static_cast<int>(sizes.size());
  const bool batched = rank == spatial + 2 && allow_batch;
  bool ok = rank == spatial + 1 || batched;
  for (int i = batched ? 1 : 0; ok && i < rank; ++i) ok = sizes[i] > 0;
  if (!ok) {
    throw std::runtime_error(
        StrCat(op, ": Expected ", spatial + 1, "D",
               allow_batch ? StrCat(" or ", spatial + 2, "D (batch mode)") : "",
               " tensor with optional 0 dim batch size for ", arg, ", but got: ", tensor.shape()));
  }
  return std::vector<long>(sizes.begin(), sizes.end() - spatial);
}

PoolGeometry MakePoolGeometry(const std::string& op, const std::vector<long>& sizes, int spatial,
                              const WindowArgs& window) {
  const std::vector<long> k = ExpandList(op, "kernel_size", window.kernel_size, spatial);
  const std::vector<long> s = ExpandList(op, "stride", window.stride, spatial, k);
  const std::vector<long> p = ExpandList(op, "padding", window.padding, spatial);
  const std::vector<long> d = ExpandList(op, "dilation", window.dilation, spatial);
  PoolGeometry g;
  std::array<long, 3> kk{1, 1, 1}, ss{1, 1, 1}, pp{0, 0, 0}, dd{1, 1, 1};
  const size_t lead = sizes.size() - spatial;
  g.planes = Product(sizes, 0, lead);
  for (int i = 0; i < spatial; ++i) {
    const int j = 3 - spatial + i;
    kk[j] = k[i], ss[j] = s[i], pp[j] = p[i], dd[j] = d[i];
    g.dim[j].in = sizes[lead + i];
  }
  auto all_positive = [](const std::array<long, 3>& v) { return v[0] > 0 && v[1] > 0 && v[2] > 0; };
  if (!all_positive(kk)) {
    throw std::invalid_argument(StrCat(op, ": kernel size should be greater than zero, but got ",
                                       DimsText("k", kk, spatial, kDimNames)));
  }
  if (!all_positive(ss)) {
    throw std::invalid_argument(StrCat(op, ": stride should be greater than zero, but got ",
                                       DimsText("d", ss, spatial, kDimNames)));
  }
  if (!all_positive(dd)) {
    const char* const names[3] = {"dilationT", "dilationH", "dilationW"};
    throw std::invalid_argument(StrCat(op, ": dilation should be greater than zero, but got ",
                                       DimsText("", dd, spatial, names)));
  }
  for (int j = 0; j < 3; ++j) {
    if (pp[j] < 0 || pp[j] > kk[j] / 2) {
      throw std::invalid_argument(StrCat(
          op, ": pad should be smaller than or equal to half of kernel size, but got ",
          DimsText("k", kk, spatial, kDimNames), " ", DimsText("pad", pp, spatial, kDimNames)));
    }
  }
  bool ok = true;
  for (int j = 0; j < 3; ++j) {
    g.dim[j].kernel = kk[j], g.dim[j].stride = ss[j], g.dim[j].pad = pp[j];
    g.dim[j].dilation = dd[j];
    g.dim[j].out = PoolOutputSize(g.dim[j].in, kk[j], pp[j], ss[j], dd[j], window.ceil_mode);
    ok = ok && g.dim[j].out >= 1;
  }
  if (!ok) {
    std::string in_text = std::to_string(
        sizes.size() > static_cast<size_t>(spatial) ? sizes[sizes.size() - spatial - 1] : 1);
    std::string out_text = in_text;
    for (int j = 3 - spatial; j < 3; ++j) {
      in_text += StrCat("x", g.dim[j].in);
      out_text += StrCat("x", g.dim[j].out);
    }
    throw std::runtime_error(StrCat(op, ": Given input size: (", in_text,
                                    "). Calculated output size: (", out_text,
                                    "). Output size is too small"));
  }
  return g;
}

PoolGeometry MakeAdaptiveGeometry(const std::string& op, const std::vector<long>& in,
                                  const std::string& out_arg, const std::vector<long>& out,
                                  int spatial) {
  const size_t lead = in.size() - spatial;
  if (out.size() != in.size() || !std::equal(in.begin(), in.begin() + lead, out.begin())) {
    throw std::runtime_error(StrCat(op, ": ", out_arg, " shape ", Shape(out),
                                    " must keep the leading sizes of ", Shape(in), " and have ",
                                    spatial, " spatial dimensions"));
  }
  PoolGeometry g;
  g.planes = Product(in, 0, lead);
  for (int i = 0; i < spatial; ++i) {
    g.dim[3 - spatial + i].in = in[lead + i];
    g.dim[3 - spatial + i].out = out[lead + i];
  }
  return g;
}

float NearestScale(long in, long out, double scale_factor) {
  if (out == in) return 1.0f;
  if (out == 2 * in) return 0.5f;
  return scale_factor > 0 ? static_cast<float>(1.0 / scale_factor)
                          : static_cast<float>(in) / static_cast<float>(out);
}

std::vector<long> PooledSizes(const std::vector<long>& sizes, const PoolGeometry& geometry,
                              int spatial) {
  std::vector<long> out = sizes;
  for (int i = 0; i < spatial; ++i)
    out[sizes.size() - spatial + i] = geometry.dim[3 - spatial + i].out;
  return out;
}

std::vector<long> InputSizes(const std::vector<long>& sizes, const PoolGeometry& geometry,
                             int spatial) {
  std::vector<long> out = sizes;
  for (int i = 0; i < spatial; ++i)
    out[sizes.size() - spatial + i] = geometry.dim[3 - spatial + i].in;
  return out;
}

void CheckPoolType(const std::string& op, const std::string& arg, const Tensor& tensor) {
  if (tensor.dtype() != kFloat && tensor.dtype() != kHalf) {
    throw std::invalid_argument(StrCat(op, ": unsupported ", arg, " type ", tensor.dtype(),
                                       " (DataType::kFloat or DataType::kHalf expected)"));
  }
}

void CheckPoolOutput(const std::string& op, const std::string& arg, const Tensor& tensor,
                     const std::vector<long>& expected, DataType dtype) {
  CheckDefined(op, arg, tensor);
  if (tensor.shape().sizes() != expected) {
    throw std::runtime_error(StrCat(op, ": ", arg, " has shape ", tensor.shape(),
                                    " but the parameters give ", Shape(expected)));
  }
  if (tensor.dtype() != dtype) {
    throw std::invalid_argument(
        StrCat(op, ": ", arg, " type ", tensor.dtype(), " does not match ", dtype));
  }
  CheckContiguous(op, arg, tensor);
}

BuildOption PoolBuildOption(DataType dtype, DataType index_type) {
  BuildOption options;
  options.AddDefinition("DTYPE", GetDataTypeCode(dtype));
  options.AddDefinition("IDX_DTYPE", index_type == kInt32 ? "int" : "long");
  return options;
}

std::vector<std::string> PoolSources(const std::string& program) {
  return {"common.h", "pool.h", program};
}

ClTensor FlatView(const Tensor& tensor) {
  return ContiguousView(tensor, {ElementCount(tensor)});
}

namespace {
IntVector4 Int4(long d, long h, long w) {
  IntVector4 v{};
  v.value.s[0] = static_cast<cl_int>(d);
  v.value.s[1] = static_cast<cl_int>(h);
  v.value.s[2] = static_cast<cl_int>(w);
  v.value.s[3] = 0;
  return v;
}
template <typename F>
IntVector4 Pick(const PoolGeometry& g, F field) {
  return Int4(field(g.dim[0]), field(g.dim[1]), field(g.dim[2]));
}
}  // namespace

void BindSizes(KernelUnit& unit, const PoolGeometry& g) {
  IntVector4 in = Pick(g, [](const PoolDim& d) { return d.in; });
  IntVector4 out = Pick(g, [](const PoolDim& d) { return d.out; });
  in.value.s[3] = out.value.s[3] = static_cast<cl_int>(g.planes);
  unit.SetArg(in).SetArg(out);
}

void BindWindow(KernelUnit& unit, const PoolGeometry& g) {
  unit.SetArg(Pick(g, [](const PoolDim& d) { return d.kernel; }))
      .SetArg(Pick(g, [](const PoolDim& d) { return d.stride; }))
      .SetArg(Pick(g, [](const PoolDim& d) { return d.pad; }));
}

void BindGeometry(KernelUnit& unit, const PoolGeometry& g) {
  BindSizes(unit, g);
  BindWindow(unit, g);
  unit.SetArg(Pick(g, [](const PoolDim& d) { return d.dilation; }));
}

std::shared_ptr<KernelUnit> MakePoolUnit(KernelImpl& kernel,
                                         const std::shared_ptr<SessionImpl>& session,
                                         const std::string& program, const std::string& kernel_name,
                                         const BuildOption& options, const PoolGeometry& g,
                                         bool over_input) {
  auto size = [&](const PoolDim& d) { return static_cast<size_t>(over_input ? d.in : d.out); };
  auto unit = kernel.MakeSubKernel(session, StrCat("Pool::", program), PoolSources(program),
                                   options, kernel_name);
  unit->SetGlobal({size(g.dim[2]), size(g.dim[1]), size(g.dim[0]) * static_cast<size_t>(g.planes)});
  return unit;
}

std::shared_ptr<KernelUnit> MakeRowBlockUnit(KernelImpl& kernel,
                                             const std::shared_ptr<SessionImpl>& session,
                                             const std::string& program,
                                             const std::string& kernel_name,
                                             const BuildOption& options, long planes, long height,
                                             long width) {
  auto unit = kernel.MakeSubKernel(session, StrCat("Pool::", program), PoolSources(program),
                                   options, kernel_name);
  const size_t blocks = static_cast<size_t>((width + kBlockWidth - 1) / kBlockWidth);
  const size_t group_blocks = std::min<size_t>(blocks, 64);
  const size_t group_rows =
      std::max<size_t>(1, std::min<size_t>(static_cast<size_t>(height), 64 / group_blocks));
  unit->SetGlobal({blocks, static_cast<size_t>(height), static_cast<size_t>(planes)})
      .SetLocal({group_blocks, group_rows, 1});
  return unit;
}

std::shared_ptr<KernelUnit> MakeRowUnit(KernelImpl& kernel,
                                        const std::shared_ptr<SessionImpl>& session,
                                        const std::string& program, const std::string& kernel_name,
                                        const BuildOption& options, long planes, long height) {
  auto unit = kernel.MakeSubKernel(session, StrCat("Pool::", program), PoolSources(program),
                                   options, kernel_name);
  // One group shape whatever the sizes (items past the end return): PoCL
  // builds the work-group loop once per shape.
  const size_t n = static_cast<size_t>(kRowGroup);
  unit->SetGlobal({static_cast<size_t>(height), static_cast<size_t>(planes)})
      .SetLocal({height == 1 ? 1 : n, height == 1 ? n : 1});
  return unit;
}

std::shared_ptr<KernelUnit> MakePlaneItemUnit(
    KernelImpl& kernel, const std::shared_ptr<SessionImpl>& session, const std::string& program,
    const std::string& kernel_name, const BuildOption& options, long planes, long positions) {
  constexpr size_t kGroup = 256, kMaxPlanes = 65535;  // groups along y a launch may have
  auto unit = kernel.MakeSubKernel(session, StrCat("Pool::", program), PoolSources(program),
                                   options, kernel_name);
  unit->SetGlobal(
          {static_cast<size_t>(positions), std::min(static_cast<size_t>(planes), kMaxPlanes)})
      .SetLocal({kGroup, 1});
  return unit;
}

void BindRowGeometry(KernelUnit& unit, const PoolGeometry& g, bool window) {
  auto arg = [&](long v) { unit.SetArg(static_cast<int>(v)); };
  arg(g.dim[1].in), arg(g.dim[2].in), arg(g.dim[1].out), arg(g.dim[2].out);
  arg(g.planes * g.dim[0].out);
  if (!window) return;
  for (int i = 1; i < 3; ++i) arg(g.dim[i].kernel);
  for (int i = 1; i < 3; ++i) arg(g.dim[i].stride);
  for (int i = 1; i < 3; ++i) arg(g.dim[i].pad);
  for (int i = 1; i < 3; ++i) arg(g.dim[i].dilation);
}

}  // namespace cl
}  // namespace nerva
