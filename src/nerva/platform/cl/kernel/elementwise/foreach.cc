#include "nerva/platform/cl/kernel/elementwise/foreach.h"

#include <algorithm>
#include <limits>
#include <map>
#include <stdexcept>

#include "nerva/platform/cl/kernel/elementwise/binary.h"
#include "nerva/platform/cl/kernel/elementwise/ternary.h"
#include "nerva/platform/cl/kernel/elementwise/unary.h"
#include "nerva/platform/cl/module.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

constexpr size_t kSlots = 16;  // tuples (or memory objects) per launch, as EW_SLOTS
constexpr int kVec = 4;
// Elements per work item of the table kernel (CPU devices).
constexpr long kChunk = 2048;

std::vector<Tensor> MakeList(const std::vector<TensorOption>& opts,
                             const std::vector<Buffer>& buffers, const std::string& op,
                             const std::string& what) {
  if (opts.size() != buffers.size()) {
    throw std::runtime_error(StrCat(op, ": ", what, " has ", opts.size(), " descriptors and ",
                                    buffers.size(), " buffers"));
  }
  std::vector<Tensor> list;
  for (size_t i = 0; i < opts.size(); ++i) list.push_back(MakeTensor(opts[i], buffers[i]));
  return list;
}

}  // namespace

// The element counts of the tuples of one launch (a uint16 kernel argument).
struct EwSlotValues {
  cl_uint16 values;
};
// A tensor's memory alone (the list forms have no element offsets).
struct EwMem {
  cl_mem mem;
};
// The memory object of a table slot and the views of it the table addresses.
struct EwRoot {
  cl_mem mem;
  std::vector<Buffer> views;
};
void KeepBound(std::vector<Buffer>& keep, const EwRoot& arg) {
  keep.insert(keep.end(), arg.views.begin(), arg.views.end());
}

cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const EwSlotValues& arg) {
  return clSetKernelArg(kernel, index++, sizeof(cl_uint16), &arg.values);
}
cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const EwMem& arg) {
  return clSetKernelArg(kernel, index++, sizeof(cl_mem), &arg.mem);
}
cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const EwRoot& arg) {
  return clSetKernelArg(kernel, index++, sizeof(cl_mem), &arg.mem);
}

ForEachKernel::ForEachKernel(std::string name, std::string family,
                             std::vector<std::vector<Tensor>> lists, std::vector<std::string> names)
    : KernelImpl(std::move(name)),
      family_(std::move(family)),
      lists_(std::move(lists)),
      names_(std::move(names)) {}

void ForEachKernel::VerifyLists(const std::function<ElementwiseSpec(size_t)>& spec_of) const {
  const size_t count = lists_[1].size();
  for (size_t l = 0; l < lists_.size(); ++l) {
    if (lists_[l].size() != count) {
      throw std::runtime_error(StrCat(name(), ": ", names_[l], " has ", lists_[l].size(),
                                      " tensors, ", names_[1], " has ", count));
    }
  }
  for (size_t i = 0; i < count; ++i) {
    const Shape& shape = lists_[1][i].shape();
    for (size_t l = 0; l < lists_.size(); ++l) {
      const Tensor& t = lists_[l][i];
      const std::string what = StrCat("tensor ", i, " of ", names_[l]);
      if (t.dtype() < kHalf || t.dtype() > kBool || t.dtype() == kDouble) {
        throw std::invalid_argument(StrCat(name(), ": unsupported type ", t.dtype(), " of ", what));
      }
      if (t.shape().sizes() != shape.sizes()) {
        throw std::runtime_error(
            StrCat(name(), ": ", what, " has shape ", t.shape(), ", expected ", shape));
      }
      if (!t.is_contiguous()) {
        throw std::runtime_error(StrCat(name(), ": ", what, " must be contiguous"));
      }
      if (shape.size() != 0 && !t.storage()) {
        throw std::runtime_error(StrCat(name(), ": ", what, " has no buffer"));
      }
    }
    const DataType result = spec_of(i).result_type;
    if (!CanCast(result, type(0, i))) {
      throw std::invalid_argument(StrCat(name(), ": result type ", result, " of tuple ", i,
                                         " can't be cast to the output type ", type(0, i)));
    }
  }
}

void ForEachKernel::CompileLists(const std::shared_ptr<SessionImpl>& session,
                                 const std::function<ElementwiseSpec(size_t)>& spec_of,
                                 const std::function<void(KernelUnit&)>& bind) {
  const bool table = session->host_cpu();
  // Tuples grouped by their build options, in list order.
  std::map<std::string, std::vector<size_t>> groups;
  std::map<std::string, BuildOption> group_options;
  std::vector<std::string> order;
  for (size_t i = 0; i < lists_[1].size(); ++i) {
    if (lists_[1][i].shape().size() == 0) continue;
    const ElementwiseSpec spec = spec_of(i);
    std::vector<DataType> inputs;
    for (size_t l = 1; l < lists_.size(); ++l) inputs.push_back(type(l, i));
    const BuildOption options =
        ElementwiseOptions(spec, type(0, i), inputs, table ? 1 : kVec,
                           table ? ElementwiseForm::kTable : ElementwiseForm::kList);
    if (!groups.count(options.str())) order.push_back(options.str());
    groups[options.str()].push_back(i);
    group_options.emplace(options.str(), options);
  }
  const std::string program = ConcatenateStrings(family_, "elementwise");
  for (const std::string& key : order) {
    const std::vector<size_t>& members = groups[key];
    const ElementwiseSpec spec = spec_of(members[0]);
    if (table) {
      CompileTable(session, members, group_options[key], ElementwiseSources(spec), bind);
      continue;
    }
    for (size_t start = 0; start < members.size(); start += kSlots) {
      const size_t used = std::min(kSlots, members.size() - start);
      EwSlotValues counts{};
      size_t widest = 0;
      for (size_t k = 0; k < used; ++k) {
        const long n = lists_[1][members[start + k]].shape().size();
        counts.values.s[k] = static_cast<cl_uint>(n);
        widest = std::max(widest, static_cast<size_t>((n + kVec - 1) / kVec));
      }
      auto unit =
          MakeSubKernel(session, program, ElementwiseSources(spec), group_options[key], name());
      unit->SetArgs(counts);
      for (size_t k = 0; k < kSlots; ++k) {
        const size_t i = members[start + (k < used ? k : 0)];
        for (const auto& list : lists_) unit->SetArg(EwMem{ClTensor(list[i]).mem()});
      }
      bind(*unit);
      unit->SetGlobal({widest, used});
    }
  }
}

void ForEachKernel::CompileTable(const std::shared_ptr<SessionImpl>& session,
                                 const std::vector<size_t>& members, const BuildOption& options,
                                 const std::vector<std::string>& sources,
                                 const std::function<void(KernelUnit&)>& bind) {
  const std::string program = ConcatenateStrings(family_, "elementwise");
  std::vector<std::vector<cl_mem>> slots;  // per slot, the root of each list's tensor
  std::vector<std::vector<Buffer>> views;  // per slot, the views the table reaches
  std::vector<cl_uint> entries;
  auto launch = [&]() {
    if (entries.empty()) return;
    auto unit = MakeSubKernel(session, program, sources, options, name());
    unit->SetArgs(TableBuffer(session, entries));
    for (size_t k = 0; k < kSlots; ++k) {
      const size_t s = k < slots.size() ? k : 0;
      for (size_t l = 0; l < lists_.size(); ++l) unit->SetArg(EwRoot{slots[s][l], views[s]});
    }
    bind(*unit);
    unit->SetGlobal({entries.size() / (lists_.size() + 2)});
    unit->SetLocal({1});
    slots.clear();
    views.clear();
    entries.clear();
  };
  for (size_t i : members) {
    std::vector<cl_mem> roots;
    std::vector<long> origins;
    for (const auto& list : lists_) {
      // Table offsets are 32-bit: a view reaching beyond 4 GiB of its root is
      // addressed from its own memory object.
      const Tensor& t = list[i];
      auto root = RootOf(t.storage());
      const long end = root.second + t.storage_offset() +
                       t.shape().size() * static_cast<long>(t.option().item_size());
      if (end > static_cast<long>(std::numeric_limits<cl_uint>::max())) {
        root = {ClTensor(t).mem(), 0};
      }
      roots.push_back(root.first);
      origins.push_back(root.second + t.storage_offset());
    }
    auto found = std::find(slots.begin(), slots.end(), roots);
    if (found == slots.end() && slots.size() == kSlots) {
      launch();
      found = slots.end();
    }
    if (found == slots.end()) {
      slots.push_back(roots);
      views.emplace_back();
      found = slots.end() - 1;
    }
    const size_t slot = static_cast<size_t>(found - slots.begin());
    for (const auto& list : lists_) views[slot].push_back(list[i].storage());
    const long n = lists_[1][i].shape().size();
    for (long start = 0; start < n; start += kChunk) {
      entries.push_back(static_cast<cl_uint>(std::min(kChunk, n - start)));
      entries.push_back(static_cast<cl_uint>(slot));
      for (size_t l = 0; l < lists_.size(); ++l) {
        const long item = static_cast<long>(lists_[l][i].option().item_size());
        entries.push_back(static_cast<cl_uint>(origins[l] + start * item));
      }
    }
  }
  launch();
}

Buffer ForEachKernel::TableBuffer(const std::shared_ptr<SessionImpl>& session,
                                  std::vector<cl_uint> values) {
  std::shared_ptr<ISessionImpl> base = session;
  MemoryFlags flags = kMemReadWrite;
  long size = static_cast<long>(values.size() * sizeof(cl_uint));
  void* host = values.data();
  return base->MakeBuffer("MakeBuffer", base, flags, size, host);
}

ForEachUnaryKernel::ForEachUnaryKernel(const ForEachUnaryOption& option,
                                       const std::vector<TensorOption>& inputs_opts,
                                       const std::vector<Buffer>& inputs,
                                       const std::vector<TensorOption>& outs_opts,
                                       const std::vector<Buffer>& outs)
    : ForEachKernel("ForEachUnary", "Unary",
                    {MakeList(outs_opts, outs, "ForEachUnary", "outs"),
                     MakeList(inputs_opts, inputs, "ForEachUnary", "inputs")},
                    {"outs", "inputs"}),
      option_(option) {}

ElementwiseSpec ForEachUnaryKernel::SpecOf(size_t i) const {
  return UnaryKernel::Spec(option_.op_type, type(1, i));
}

bool ForEachUnaryKernel::Verify() const {
  VerifyLists([this](size_t i) { return SpecOf(i); });
  return true;
}

void ForEachUnaryKernel::Compile(std::shared_ptr<SessionImpl> session) {
  CompileLists(
      session, [this](size_t i) { return SpecOf(i); }, [](KernelUnit&) {});
}

ForEachBinaryKernel::ForEachBinaryKernel(const ForEachBinaryOption& option,
                                         const std::vector<TensorOption>& inputs_opts,
                                         const std::vector<Buffer>& inputs,
                                         const std::vector<TensorOption>& others_opts,
                                         const std::vector<Buffer>& others,
                                         const std::vector<TensorOption>& outs_opts,
                                         const std::vector<Buffer>& outs)
    : ForEachKernel("ForEachBinary", "Binary",
                    {MakeList(outs_opts, outs, "ForEachBinary", "outs"),
                     MakeList(inputs_opts, inputs, "ForEachBinary", "inputs"),
                     MakeList(others_opts, others, "ForEachBinary", "others")},
                    {"outs", "inputs", "others"}),
      option_(option) {}

ElementwiseSpec ForEachBinaryKernel::SpecOf(size_t i) const {
  return BinaryKernel::Spec(option_.op_type, type(1, i), type(2, i));
}

bool ForEachBinaryKernel::Verify() const {
  VerifyLists([this](size_t i) { return SpecOf(i); });
  return true;
}

void ForEachBinaryKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const float alpha = option_.alpha;
  CompileLists(
      session, [this](size_t i) { return SpecOf(i); },
      [alpha](KernelUnit& unit) { unit.SetArg(alpha); });
}

ForEachTernaryKernel::ForEachTernaryKernel(
    const ForEachTernaryOption& option, const std::vector<TensorOption>& inputs_opts,
    const std::vector<Buffer>& inputs, const std::vector<TensorOption>& tensors1_opts,
    const std::vector<Buffer>& tensors1, const std::vector<TensorOption>& tensors2_opts,
    const std::vector<Buffer>& tensors2, const std::vector<TensorOption>& outs_opts,
    const std::vector<Buffer>& outs)
    : ForEachKernel("ForEachTernary", "Ternary",
                    {MakeList(outs_opts, outs, "ForEachTernary", "outs"),
                     MakeList(inputs_opts, inputs, "ForEachTernary", "inputs"),
                     MakeList(tensors1_opts, tensors1, "ForEachTernary", "tensors1"),
                     MakeList(tensors2_opts, tensors2, "ForEachTernary", "tensors2")},
                    {"outs", "inputs", "tensors1", "tensors2"}),
      option_(option) {}

ElementwiseSpec ForEachTernaryKernel::SpecOf(size_t i) const {
  return TernaryKernel::Spec(option_.op_type, type(1, i), type(2, i), type(3, i));
}

bool ForEachTernaryKernel::Verify() const {
  VerifyLists([this](size_t i) { return SpecOf(i); });
  return true;
}

void ForEachTernaryKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const float value_f = option_.value;
  const long value_l = static_cast<long>(option_.value);
  CompileLists(
      session, [this](size_t i) { return SpecOf(i); },
      [=](KernelUnit& unit) { unit.SetArg(value_f).SetArg(value_l); });
}

NERVA_STATIC_REGISTER {
  using Opts = const std::vector<TensorOption>&;
  using Bufs = const std::vector<Buffer>&;
  auto& module = ClModule::singleton();
  module.AddKernel<ForEachUnaryKernel, const ForEachUnaryOption&, Opts, Bufs, Opts, Bufs>(
      "ForEachUnary");
  module.AddKernel<ForEachBinaryKernel, const ForEachBinaryOption&, Opts, Bufs, Opts, Bufs, Opts,
                   Bufs>("ForEachBinary");
  module.AddKernel<ForEachTernaryKernel, const ForEachTernaryOption&, Opts, Bufs, Opts, Bufs, Opts,
                   Bufs, Opts, Bufs>("ForEachTernary");
};

}  // namespace cl
}  // namespace nerva
