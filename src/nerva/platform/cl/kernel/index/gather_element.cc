#include "nerva/platform/cl/kernel/index/gather_element.h"

#include "nerva/kernel/base_option.h"
#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

void CheckIndexFits(const std::string& op, const std::string& index_arg, const Tensor& index,
                    const std::string& data_arg, const Tensor& data, int dim) {
  const auto& is = index.shape().sizes();
  const auto& ds = data.shape().sizes();
  bool fits = is.size() == ds.size();
  for (size_t k = 0; fits && k < is.size(); ++k) {
    if (static_cast<int>(k) != dim && is[k] > ds[k]) fits = false;
  }
  if (!fits) {
    throw std::runtime_error(StrCat(op, ": ", index_arg, " of shape ", index.shape(),
                                    " does not fit ", data_arg, " of shape ", data.shape(),
                                    dim >= 0 ? StrCat(" outside dim ", dim) : std::string()));
  }
}

std::vector<long> WalkTable(int dim, const std::vector<long>& sizes, const std::vector<long>& a,
                            const std::vector<long>& b, const std::vector<long>& c) {
  std::vector<long> m(34, 0);
  m[0] = static_cast<long>(sizes.size());
  m[1] = dim;
  for (size_t k = 0; k < sizes.size(); ++k) {
    m[2 + k] = sizes[k];
    m[10 + k] = k < a.size() ? a[k] : 0;
    m[18 + k] = k < b.size() ? b[k] : 0;
    m[26 + k] = k < c.size() ? c[k] : 0;
  }
  return m;
}

GatherElementKernel::GatherElementKernel(std::string name, int dim, Tensor input, Tensor index,
                                         Tensor out)
    : IndexFrameKernel(std::move(name)),
      dim_(dim),
      input_(std::move(input)),
      index_(std::move(index)),
      out_(std::move(out)) {}

bool GatherElementKernel::Verify() const {
  CheckDataType("input", input_, false);
  CheckIndexType("index", index_);
  CheckRank("input", input_);
  const int d = Dim(dim_, input_.shape().ndim());
  CheckIndexFits(name(), "index", index_, "input", input_, d);
  CheckOut("out", out_, index_.shape().sizes(), input_.dtype());
  return true;
}

void GatherElementKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const long n = ElementCount(out_);
  if (n == 0) return;
  const int d = Dim(dim_, input_.shape().ndim());
  const auto& in_strides = input_.shape().strides();
  Buffer table = Table(
      session, WalkTable(d, index_.shape().sizes(), index_.shape().strides(), {}, in_strides));
  auto& unit = Unit(session, "gather_element.cl", MoveOptions(input_.dtype()), name());
  unit.SetArgs(Arg(input_), Arg(index_), Is64(index_), Arg(out_), table, static_cast<cl_ulong>(n),
               static_cast<cl_long>(input_.shape().sizes()[d]),
               static_cast<cl_long>(in_strides[d]));
  Launch(unit, n);
}

namespace {
using TO = const TensorOption&;
using CB = const Buffer&;
using MB = Buffer&;
}  // namespace

NERVA_STATIC_REGISTER {
  RegisterIndexKernel<const GatherElementOption&, TO, CB, TO, CB, TO, MB>(
      "GatherElement", [](const std::string& n, const GatherElementOption& o, TO io, CB i, TO xo,
                          CB x, TO oo, MB out) {
        return std::make_shared<GatherElementKernel>(n, o.dim, MakeTensor(io, i), MakeTensor(xo, x),
                                                     MakeTensor(oo, out));
      });
};

}  // namespace cl
}  // namespace nerva
