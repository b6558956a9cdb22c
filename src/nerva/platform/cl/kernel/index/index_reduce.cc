#include "nerva/platform/cl/kernel/index/index_reduce.h"

#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

namespace nerva {
namespace cl {

IndexReduceKernel::IndexReduceKernel(std::string name, const IndexReduceOption& option,
                                     Tensor input, Tensor index, Tensor source, Tensor out)
    : IndexFrameKernel(std::move(name)),
      option_(option),
      input_(std::move(input)),
      index_(std::move(index)),
      source_(std::move(source)),
      out_(std::move(out)) {}

bool IndexReduceKernel::Verify() const {
  const auto r = option_.reduce;
  if (r != ScatterReduceType::kProd && r != ScatterReduceType::kMean &&
      r != ScatterReduceType::kAmax && r != ScatterReduceType::kAmin) {
    throw std::invalid_argument(
        StrCat(name(), ": reduce must be kProd, kMean, kAmax or kAmin, got ", static_cast<int>(r)));
  }
  CheckDataType("input", input_, true);
  CheckIndexType("index", index_);
  CheckSameType("source", source_, input_.dtype());
  CheckRank("input", input_);
  const int d = Dim(option_.dim, input_.shape().ndim());
  if (index_.shape().ndim() != 1) {
    throw std::runtime_error(StrCat(name(), ": index must be 1-D, got shape ", index_.shape()));
  }
  std::vector<long> sizes = input_.shape().sizes();
  sizes[d] = index_.shape().sizes()[0];
  CheckSizes("source", source_, sizes);
  CheckOut("out", out_, input_.shape().sizes(), input_.dtype());
  return true;
}

void IndexReduceKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (ElementCount(out_) == 0) return;
  const auto& sizes = input_.shape().sizes();
  const int d = Dim(option_.dim, sizes.size());
  const long n = ElementCount(source_);
  const Tensor input = Dense(session, input_);
  const int op = static_cast<int>(option_.reduce);
  const bool counted = option_.reduce == ScatterReduceType::kMean || !option_.include_self;
  Accumulator acc = BeginAccumulate(session, out_, op, counted);
  if (n > 0) {
    const Tensor source = Dense(session, source_);
    const Tensor index = Dense(session, index_);
    auto& unit = Unit(session, "index_reduce.cl", TypeOptions(input_.dtype()), name());
    unit.SetArgs(Arg(source), Arg(index), Is64(index), acc.acc, acc.count,
                 static_cast<int>(counted), op, static_cast<cl_ulong>(n),
                 static_cast<cl_ulong>(Product(sizes, d + 1, sizes.size())),
                 static_cast<cl_ulong>(index_.shape().sizes()[0]), static_cast<cl_long>(sizes[d]));
    Launch(unit, n);
  }
  EndAccumulate(session, acc, input, out_, option_.include_self);
}

namespace {
using TO = const TensorOption&;
using CB = const Buffer&;
using MB = Buffer&;
}  // namespace

NERVA_STATIC_REGISTER {
  RegisterIndexKernel<const IndexReduceOption&, TO, CB, TO, CB, TO, CB, TO, MB>(
      "IndexReduce", [](const std::string& n, const IndexReduceOption& o, TO io, CB i, TO xo, CB x,
                        TO so, CB s, TO oo, MB out) {
        return std::make_shared<IndexReduceKernel>(n, o, MakeTensor(io, i), MakeTensor(xo, x),
                                                   MakeTensor(so, s), MakeTensor(oo, out));
      });
};

}  // namespace cl
}  // namespace nerva
