#include "nerva/platform/cl/kernel/index/index_put.h"

#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

namespace nerva {
namespace cl {

void CheckValuesBroadcast(const std::string& op, const Tensor& values,
                          const std::vector<long>& sizes) {
  std::vector<long> joint;
  if (!BroadcastTogether(values.shape().sizes(), sizes, &joint) || joint != sizes) {
    throw std::runtime_error(StrCat(op, ": values of shape ", values.shape(),
                                    " do not broadcast to the indexed shape ", Shape(sizes)));
  }
}

IndexPutKernel::IndexPutKernel(std::string name, const IndexPutOption& option, Tensor input,
                               Tensor index, Tensor values, Tensor out)
    : IndexFrameKernel(std::move(name)),
      option_(option),
      input_(std::move(input)),
      index_(std::move(index)),
      values_(std::move(values)),
      out_(std::move(out)) {}

std::vector<long> IndexPutKernel::IndexedSizes() const {
  const auto& in = input_.shape().sizes();
  const int d = Dim(option_.dim, in.size());
  std::vector<long> sizes(in.begin(), in.begin() + d);
  for (long s : index_.shape().sizes()) sizes.push_back(s);
  sizes.insert(sizes.end(), in.begin() + d + 1, in.end());
  return sizes;
}

bool IndexPutKernel::Verify() const {
  CheckDataType("input", input_, option_.accumulate);
  CheckIndexType("index", index_);
  CheckSameType("values", values_, input_.dtype());
  CheckRank("input", input_);
  CheckRank("values", values_);
  const std::vector<long> sizes = IndexedSizes();
  if (sizes.size() > 8) {
    throw std::invalid_argument(StrCat(name(), ": indexed rank ", sizes.size(), " exceeds 8"));
  }
  CheckValuesBroadcast(name(), values_, sizes);
  CheckOut("out", out_, input_.shape().sizes(), input_.dtype());
  return true;
}

void IndexPutKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (ElementCount(out_) == 0) return;
  const auto& in = input_.shape().sizes();
  const int d = Dim(option_.dim, in.size());
  const std::vector<long> sizes = IndexedSizes();
  const long n = Product(sizes, 0, sizes.size());
  const Tensor input = Dense(session, input_);
  const BuildOption options = TypeOptions(input_.dtype());
  Accumulator acc;
  if (option_.accumulate) {
    acc = BeginAccumulate(session, out_, static_cast<int>(ScatterReduceType::kSum), false);
  } else {
    Copy(session, input, out_);
  }
  if (n > 0) {
    const Tensor values = Dense(session, values_.BroadcastTo(sizes));
    const Tensor index = Dense(session, index_);
    const auto inner = static_cast<cl_ulong>(Product(in, d + 1, in.size()));
    const auto len = static_cast<cl_ulong>(ElementCount(index_));
    if (option_.accumulate) {
      auto& unit = Unit(session, "index_put.cl", options, "index_put_add");
      unit.SetArgs(Arg(values), Arg(index), Is64(index), acc.acc, acc.count,
                   static_cast<cl_ulong>(n), inner, len, static_cast<cl_long>(in[d]));
      Launch(unit, n);
    } else {
      auto& unit = Unit(session, "index_put.cl", options, "IndexPut");
      unit.SetArgs(Arg(values), Arg(index), Is64(index), Arg(out_), static_cast<cl_ulong>(n), inner,
                   len, static_cast<cl_long>(in[d]));
      Launch(unit, n);
    }
  }
  if (option_.accumulate) EndAccumulate(session, acc, input, out_, true);
}

namespace {
using TO = const TensorOption&;
using CB = const Buffer&;
using MB = Buffer&;
}  // namespace

NERVA_STATIC_REGISTER {
  RegisterIndexKernel<const IndexPutOption&, TO, CB, TO, CB, TO, CB, TO, MB>(
      "IndexPut", [](const std::string& n, const IndexPutOption& o, TO io, CB i, TO xo, CB x, TO vo,
                     CB v, TO oo, MB out) {
        return std::make_shared<IndexPutKernel>(n, o, MakeTensor(io, i), MakeTensor(xo, x),
                                                MakeTensor(vo, v), MakeTensor(oo, out));
      });
};

}  // namespace cl
}  // namespace nerva
