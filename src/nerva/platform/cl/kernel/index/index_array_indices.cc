#include "nerva/platform/cl/kernel/index/index_array_indices.h"

#include <algorithm>

#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

namespace nerva {
namespace cl {

namespace {
constexpr size_t kSlot = 12;  // table entries per index tensor
constexpr size_t kHead = 18;  // table entries before the first slot
}  // namespace

ArrayPlan PlanArrayIndices(const std::string& op, const std::vector<long>& sizes,
                           const std::vector<long>& strides, const std::vector<Tensor>& indices) {
  if (indices.size() > sizes.size()) {
    throw std::out_of_range(StrCat(op, ": too many indices (", indices.size(),
                                   ") for a tensor of rank ", sizes.size()));
  }
  std::vector<int> dims;  // input dimensions with an index tensor
  std::vector<long> joint;
  for (size_t t = 0; t < indices.size(); ++t) {
    if (!Defined(indices[t])) continue;
    const DataType type = indices[t].dtype();
    if (type != kInt64 && type != kInt32) {
      throw std::invalid_argument(StrCat(
          op, ": indices[", t, "] must be DataType::kInt64 or DataType::kInt32, got ", type));
    }
    std::vector<long> next;
    if (!dims.empty() && !BroadcastTogether(joint, indices[t].shape().sizes(), &next)) {
      throw std::runtime_error(StrCat(op, ": indices of shapes ", Shape(joint), " and ",
                                      indices[t].shape(), " cannot be broadcast together"));
    }
    joint = dims.empty() ? indices[t].shape().sizes() : next;
    dims.push_back(static_cast<int>(t));
  }
  // Result dimensions: an input dimension (>= 0) or a broadcast one (-1 - b).
  std::vector<long> roles;
  const bool adjacent =
      dims.empty() || dims.back() - dims.front() + 1 == static_cast<int>(dims.size());
  auto push_joint = [&] {
    for (size_t b = 0; b < joint.size(); ++b) roles.push_back(-1 - static_cast<long>(b));
  };
  if (!adjacent) push_joint();
  for (int d = 0; d < static_cast<int>(sizes.size()); ++d) {
    const bool indexed = std::find(dims.begin(), dims.end(), d) != dims.end();
    if (adjacent && !dims.empty() && d == dims.front()) push_joint();
    if (!indexed) roles.push_back(d);
  }
  if (roles.size() > 8) {
    throw std::invalid_argument(StrCat(op, ": result rank ", roles.size(), " exceeds 8"));
  }
  ArrayPlan plan;
  plan.table.assign(kHead + kSlot * dims.size(), 0);
  plan.table[0] = static_cast<long>(roles.size());
  plan.table[1] = static_cast<long>(dims.size());
  for (size_t k = 0; k < roles.size(); ++k) {
    const long role = roles[k];
    plan.result.push_back(role >= 0 ? sizes[role] : joint[-1 - role]);
    plan.table[2 + k] = plan.result.back();
    plan.table[10 + k] = role >= 0 ? strides[role] : 0;
  }
  for (size_t t = 0; t < dims.size(); ++t) {
    const Tensor& index = indices[dims[t]];
    long* s = &plan.table[kHead + kSlot * t];
    s[0] = index.dtype() == kInt64;
    s[1] = sizes[dims[t]];
    s[2] = strides[dims[t]];
    const auto& isz = index.shape().sizes();
    const auto& ist = index.shape().strides();
    const long lead = static_cast<long>(joint.size() - isz.size());
    for (size_t k = 0; k < roles.size(); ++k) {
      if (roles[k] >= 0) continue;
      const long own = -1 - roles[k] - lead;  // the index tensor's dimension, right-aligned
      if (own >= 0 && isz[own] != 1) s[4 + k] = ist[own];
    }
    plan.slots.push_back(index);
  }
  return plan;
}

std::vector<IxArg> SlotArgs(const ArrayPlan& plan, const Tensor& fallback) {
  std::vector<IxArg> args;
  for (const Tensor& t : plan.slots) {
    // An index without elements never gets read; any buffer serves.
    args.push_back(ElementCount(t) > 0 ? MakeIxArg(t) : MakeIxArg(fallback));
  }
  while (args.size() < 8) args.push_back(args.empty() ? MakeIxArg(fallback) : args[0]);
  return args;
}

IndexWithIndicesArrayKernel::IndexWithIndicesArrayKernel(std::string name, Tensor input,
                                                         std::vector<Tensor> indices, Tensor out)
    : IndexFrameKernel(std::move(name)),
      input_(std::move(input)),
      indices_(std::move(indices)),
      out_(std::move(out)) {}

bool IndexWithIndicesArrayKernel::Verify() const {
  CheckDataType("input", input_, false);
  CheckRank("input", input_);
  const ArrayPlan plan =
      PlanArrayIndices(name(), input_.shape().sizes(), input_.shape().strides(), indices_);
  CheckOut("out", out_, plan.result, input_.dtype());
  return true;
}

void IndexWithIndicesArrayKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const long n = ElementCount(out_);
  if (n == 0) return;
  const ArrayPlan plan =
      PlanArrayIndices(name(), input_.shape().sizes(), input_.shape().strides(), indices_);
  const auto slots = SlotArgs(plan, out_);
  auto& unit = Unit(session, "index_array_indices.cl", MoveOptions(input_.dtype()), name());
  unit.SetArgs(Arg(input_), Arg(out_), Table(session, plan.table), static_cast<cl_ulong>(n));
  for (const IxArg& a : slots) unit.SetArg(a);
  Launch(unit, n);
}

std::vector<Tensor> MakeTensors(const std::vector<TensorOption>& options,
                                const std::vector<Buffer>& buffers) {
  std::vector<Tensor> out;
  for (size_t i = 0; i < options.size(); ++i) {
    out.push_back(MakeTensor(options[i], i < buffers.size() ? buffers[i] : Buffer()));
  }
  return out;
}

namespace {
using TO = const TensorOption&;
using CB = const Buffer&;
using MB = Buffer&;
}  // namespace

NERVA_STATIC_REGISTER {
  RegisterIndexKernel<TO, CB, const std::vector<TensorOption>&, const std::vector<Buffer>&, TO, MB>(
      "IndexWithIndicesArray",
      [](const std::string& n, TO io, CB i, const std::vector<TensorOption>& xo,
         const std::vector<Buffer>& x, TO oo, MB out) {
        if (xo.size() != x.size()) {
          throw std::invalid_argument(
              StrCat(n, ": ", xo.size(), " index descriptors but ", x.size(), " buffers"));
        }
        return std::make_shared<IndexWithIndicesArrayKernel>(
            n, MakeTensor(io, i), MakeTensors(xo, x), MakeTensor(oo, out));
      });
};

}  // namespace cl
}  // namespace nerva
