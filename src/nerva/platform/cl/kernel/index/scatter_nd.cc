#include "nerva/platform/cl/kernel/index/scatter_nd.h"

#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

namespace nerva {
namespace cl {

ScatterNDKernel::ScatterNDKernel(std::string name, const ScatterNDOption& option, Tensor data,
                                 Tensor indices, Tensor updates, Tensor out)
    : IndexFrameKernel(std::move(name)),
      option_(option),
      data_(std::move(data)),
      indices_(std::move(indices)),
      updates_(std::move(updates)),
      out_(std::move(out)) {}

bool ScatterNDKernel::Verify() const {
  const auto r = option_.reduction;
  if (static_cast<int>(r) < 0 || static_cast<int>(r) > 5 || r == ScatterReduceType::kMean) {
    throw std::invalid_argument(StrCat(name(), ": reduction must be kNone, kSum, kProd, kAmax or ",
                                       "kAmin, got ", static_cast<int>(r)));
  }
  CheckDataType("data", data_, r != ScatterReduceType::kNone);
  CheckIndexType("indices", indices_);
  CheckSameType("updates", updates_, data_.dtype());
  CheckRank("data", data_);
  const auto& ds = data_.shape().sizes();
  const auto& is = indices_.shape().sizes();
  if (is.empty() || is.back() > static_cast<long>(ds.size()) || is.back() < 1) {
    throw std::runtime_error(StrCat(name(), ": indices of shape ", indices_.shape(),
                                    " need a last dimension in [1, ", ds.size(),
                                    "] for data of shape ", data_.shape()));
  }
  std::vector<long> want(is.begin(), is.end() - 1);
  want.insert(want.end(), ds.begin() + is.back(), ds.end());
  CheckSizes("updates", updates_, want);
  CheckOut("out", out_, ds, data_.dtype());
  return true;
}

void ScatterNDKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (ElementCount(out_) == 0) return;
  const auto& ds = data_.shape().sizes();
  const long k = indices_.shape().sizes().back();
  const long n = ElementCount(updates_);
  const long slice = Product(ds, k, ds.size());
  const Tensor data = Dense(session, data_);
  const int op = static_cast<int>(option_.reduction);
  const BuildOption options = TypeOptions(data_.dtype());
  Accumulator acc;
  if (op == 0) {
    Copy(session, data, out_);
    acc.acc = acc.count = Scratch(session, 8);
  } else {
    acc = BeginAccumulate(session, out_, op, false);
  }
  if (n > 0 && slice > 0) {
    std::vector<long> table(17, 0);
    table[0] = k;
    const auto& strides = out_.shape().strides();
    for (long q = 0; q < k; ++q) {
      table[1 + q] = ds[q];
      table[9 + q] = strides[q];
    }
    const Tensor updates = Dense(session, updates_);
    const Tensor indices = Dense(session, indices_);
    auto& unit = Unit(session, "scatter_nd.cl", options, name());
    unit.SetArgs(Arg(updates), Arg(indices), Is64(indices), Arg(out_), acc.acc, acc.count, op,
                 Table(session, table), static_cast<cl_ulong>(n), static_cast<cl_ulong>(slice));
    Launch(unit, n);
  }
  if (op != 0) EndAccumulate(session, acc, data, out_, true);
}

namespace {
using TO = const TensorOption&;
using CB = const Buffer&;
using MB = Buffer&;
}  // namespace

NERVA_STATIC_REGISTER {
  RegisterIndexKernel<const ScatterNDOption&, TO, CB, TO, CB, TO, CB, TO, MB>(
      "ScatterND", [](const std::string& n, const ScatterNDOption& o, TO io, CB i, TO xo, CB x,
                      TO uo, CB u, TO oo, MB out) {
        return std::make_shared<ScatterNDKernel>(n, o, MakeTensor(io, i), MakeTensor(xo, x),
                                                 MakeTensor(uo, u), MakeTensor(oo, out));
      });
};

}  // namespace cl
}  // namespace nerva
