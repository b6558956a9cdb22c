#include "nerva/platform/cl/kernel/index/index_put_array_indices.h"

#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"
#include "nerva/platform/cl/kernel/index/index_put.h"

namespace nerva {
namespace cl {

IndexPutWithIndicesArrayKernel::IndexPutWithIndicesArrayKernel(std::string name,
                                                               const IndexPutOption& option,
                                                               Tensor input,
                                                               std::vector<Tensor> indices,
                                                               Tensor values, Tensor out)
    : IndexFrameKernel(std::move(name)),
      option_(option),
      input_(std::move(input)),
      indices_(std::move(indices)),
      values_(std::move(values)),
      out_(std::move(out)) {}

ArrayPlan IndexPutWithIndicesArrayKernel::Plan() const {
  // Addresses the dense output, which has the input's shape.
  return PlanArrayIndices(name(), input_.shape().sizes(), out_.shape().strides(), indices_);
}

bool IndexPutWithIndicesArrayKernel::Verify() const {
  CheckDataType("input", input_, option_.accumulate);
  CheckSameType("values", values_, input_.dtype());
  CheckRank("input", input_);
  CheckRank("values", values_);
  CheckOut("out", out_, input_.shape().sizes(), input_.dtype());
  CheckValuesBroadcast(name(), values_, Plan().result);
  return true;
}

void IndexPutWithIndicesArrayKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (ElementCount(out_) == 0) return;
  const ArrayPlan plan = Plan();
  const long n = Product(plan.result, 0, plan.result.size());
  const Tensor input = Dense(session, input_);
  const BuildOption options = TypeOptions(input_.dtype());
  Accumulator acc;
  if (option_.accumulate) {
    acc = BeginAccumulate(session, out_, static_cast<int>(ScatterReduceType::kSum), false);
  } else {
    Copy(session, input, out_);
  }
  if (n > 0) {
    const Tensor values = Dense(session, values_.BroadcastTo(plan.result));
    const Buffer table = Table(session, plan.table);
    const auto slots = SlotArgs(plan, out_);
    const char* kernel = option_.accumulate ? "index_put_array_add" : "IndexPutWithIndicesArray";
    auto& unit = Unit(session, "index_put_array_indices.cl", options, kernel);
    if (option_.accumulate) {
      unit.SetArgs(Arg(values), acc.acc, acc.count, table, static_cast<cl_ulong>(n));
    } else {
      unit.SetArgs(Arg(values), Arg(out_), table, static_cast<cl_ulong>(n));
    }
    for (const IxArg& a : slots) unit.SetArg(a);
    Launch(unit, n);
  }
  if (option_.accumulate) EndAccumulate(session, acc, input, out_, true);
}

namespace {
using TO = const TensorOption&;
using CB = const Buffer&;
using MB = Buffer&;
using TOs = const std::vector<TensorOption>&;
using CBs = const std::vector<Buffer>&;
}  // namespace

NERVA_STATIC_REGISTER {
  RegisterIndexKernel<const IndexPutOption&, TO, CB, TOs, CBs, TO, CB, TO, MB>(
      "IndexPutWithIndicesArray", [](const std::string& n, const IndexPutOption& o, TO io, CB i,
                                     TOs xo, CBs x, TO vo, CB v, TO oo, MB out) {
        if (xo.size() != x.size()) {
          throw std::invalid_argument(
              StrCat(n, ": ", xo.size(), " index descriptors but ", x.size(), " buffers"));
        }
        return std::make_shared<IndexPutWithIndicesArrayKernel>(
            n, o, MakeTensor(io, i), MakeTensors(xo, x), MakeTensor(vo, v), MakeTensor(oo, out));
      });
};

}  // namespace cl
}  // namespace nerva
