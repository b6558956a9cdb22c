#include "nerva/platform/cl/kernel/sort/bitonicsort.h"

#include <stdexcept>
#include <string>

#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

constexpr long kNoLoopMaxKeys = 2048;
constexpr uint64_t kNoLoopLocalBytes = 2048 * 8;
// Shortest extended row of the CPU program: one vector of 16 keys.
constexpr long kRowsMinKeys = 16;
// Stages that stay inside blocks of kNoLoopMaxKeys positions.
constexpr int kBlockStages = 11;

// The sorted run viewed as [outer, length, inner].
struct SortLayout {
  long outer = 1, length = 1, inner = 1;
};

SortLayout LayoutOf(const Shape& shape, int axis) {
  SortLayout l;
  for (int i = 0; i < static_cast<int>(shape.ndim()); ++i) {
    if (i < axis) l.outer *= shape[i];
    if (i > axis) l.inner *= shape[i];
  }
  l.length = shape[axis];
  return l;
}

bool SortableType(DataType t) {
  return t == kFloat || t == kHalf || TypeTraitsHelper::IsIntegral(t, true);
}

void CheckTensor(const std::string& op, const char* what, const Tensor& t) {
  if (!t.defined()) throw std::runtime_error(StrCat(op, ": ", what, " is empty"));
  if (!t.is_contiguous()) {
    throw std::runtime_error(StrCat(op, ": ", what, " ", t.shape(), " must be contiguous"));
  }
}

void CheckSameShape(const std::string& op, const char* what, const Tensor& t, const Shape& s) {
  if (t.shape().sizes() != s.sizes()) {
    throw std::runtime_error(
        StrCat(op, ": ", what, " ", t.shape(), " must have the input's shape ", s));
  }
}

void CheckIndexType(const std::string& op, const char* what, DataType t) {
  if (t != kInt64 && t != kInt32) {
    throw std::invalid_argument(StrCat(op, ": ", what, " type ", t,
                                       " is not supported (DataType::kInt64 or DataType::kInt32)"));
  }
}

// Scratch shape: the input's, with the sorted dimension extended.
void CheckScratch(const std::string& op, const char* what, const char* message, const Tensor& t,
                  const Shape& input, int axis) {
  CheckTensor(op, what, t);
  const long ext = BitonicExtendedLength(input[axis]);
  if (t.shape().ndim() != input.ndim() || t.shape()[axis] != ext) throw std::runtime_error(message);
  std::vector<long> expected = input.sizes();
  expected[axis] = ext;
  if (t.shape().sizes() != expected) {
    throw std::runtime_error(
        StrCat(op, ": ", what, " ", t.shape(), " must be ", expected, " for input ", input));
  }
}

// The device view of `t` for the layout: [outer, n] on axis0, [n, inner] or
// [outer, n, inner] on axis1, with `n` the tensor's own sorted length.
ClTensor SortView(const Tensor& t, const SortLayout& l, long n) {
  if (l.inner == 1) return ClTensor(t.Reshape({l.outer, n}));
  if (l.outer == 1) return ClTensor(t.Reshape({n, l.inner}));
  return ClTensor(t.Reshape({l.outer, n, l.inner}));
}

BuildOption SortOptions(const BitonicSortTensors& t, const SortLayout& l) {
  const bool with_indices = t.indices.defined();
  BuildOption options;
  options.AddDefinitionAutoType("BLOCK_SIZE", l.length)
      .AddDefinition("IN_DTYPE", GetDataTypeCode(t.input.dtype()))
      .AddDefinition("OUT_DTYPE", GetDataTypeCode(t.out.dtype()))
      .AddOptionIf(t.descending, "-DDESCENDING")
      .AddOptionIf(with_indices, "-DWITH_INDICES")
      .AddOptionIf(l.inner > 1 && l.outer > 1, "-DIS_3D");
  if (with_indices) options.AddDefinition("INDICES_DTYPE", GetDataTypeCode(t.indices.dtype()));
  return options;
}

void AppendNoLoop(KernelImpl& kernel, const std::shared_ptr<SessionImpl>& session,
                  const BitonicSortTensors& t, const SortLayout& l) {
  const int stages = BitonicStages(l.length);
  const size_t local = static_cast<size_t>(BitonicExtendedLength(l.length) / 2);
  BuildOption options = SortOptions(t, l);
  options.AddDefinitionAutoType("LOCAL_SIZE0", static_cast<long>(local));
  const bool axis0 = l.inner == 1;
  auto unit = kernel.MakeSubKernel(session, "BitonicSort::noloop",
                                   {"common.h", "sort.h", "bitonicsort_noloop.cl"}, options,
                                   axis0 ? "bitonicsort_axis0" : "bitonicsort_axis1");
  unit->SetArgs(SortView(t.input, l, l.length));
  if (t.indices.defined()) unit->SetArg(SortView(t.indices, l, l.length));
  unit->SetArg(SortView(t.out, l, l.length)).SetArg(stages).SetArg(static_cast<int>(l.length));
  const size_t outer = static_cast<size_t>(l.outer), inner = static_cast<size_t>(l.inner);
  if (axis0) {
    unit->SetGlobal({local, outer}).SetLocal({local, 1});
  } else if (l.outer == 1) {
    unit->SetGlobal({inner, local}).SetLocal({1, local});
  } else {
    unit->SetGlobal({inner, local, outer}).SetLocal({1, local, 1});
  }
}

// CPU devices: one work item per row runs the same network on the row's keys
// in private vectors (rows of 16 to 2048 extended keys).
void AppendRows(KernelImpl& kernel, const std::shared_ptr<SessionImpl>& session,
                const BitonicSortTensors& t, const SortLayout& l) {
  BuildOption options = SortOptions(t, l);
  options.AddOptionIf(t.input.dtype() == kFloat, "-DKEYS_ARE_VALUES");
  const bool axis0 = l.inner == 1;
  auto unit = kernel.MakeSubKernel(session, "BitonicSort::rows",
                                   {"common.h", "sort.h", "bitonicsort_rows.cl"}, options,
                                   axis0 ? "bitonicsort_rows_axis0" : "bitonicsort_rows_axis1");
  unit->SetArgs(SortView(t.input, l, l.length));
  if (t.indices.defined()) unit->SetArg(SortView(t.indices, l, l.length));
  unit->SetArg(SortView(t.out, l, l.length))
      .SetArg(BitonicStages(l.length))
      .SetArg(static_cast<int>(l.length));
  const size_t outer = static_cast<size_t>(l.outer), inner = static_cast<size_t>(l.inner);
  if (axis0) {
    unit->SetGlobal({outer}).SetLocal({1});
  } else if (l.outer == 1) {
    unit->SetGlobal({inner}).SetLocal({1});
  } else {
    unit->SetGlobal({inner, outer}).SetLocal({1, 1});
  }
}

void AppendLoops(KernelImpl& kernel, const std::shared_ptr<SessionImpl>& session,
                 const BitonicSortTensors& t, const SortLayout& l) {
  const int stages = BitonicStages(l.length);
  const long ext = BitonicExtendedLength(l.length);
  BuildOption options = SortOptions(t, l);
  options.AddDefinition("TEMP_DTYPE", GetDataTypeCode(t.temp.dtype()));
  if (t.indices.defined()) {
    options.AddDefinition("TEMP_INDICES_DTYPE", GetDataTypeCode(t.temp_indices.dtype()));
  }
  BuildOption last = options;
  last.AddOption("-DLAST_LOOP");
  const bool axis0 = l.inner == 1;
  const std::string prefix = axis0 ? "bitonicsort_axis0" : "bitonicsort_axis1";
  const size_t comparators = static_cast<size_t>(ext / 2);
  const size_t outer = static_cast<size_t>(l.outer), inner = static_cast<size_t>(l.inner);
  std::vector<size_t> global = axis0          ? std::vector<size_t>{comparators, outer}
                               : l.outer == 1 ? std::vector<size_t>{inner, comparators}
                                              : std::vector<size_t>{inner, comparators, outer};
  const ClTensor src = SortView(t.input, l, l.length), dst = SortView(t.out, l, l.length);
  const ClTensor temp = SortView(t.temp, l, ext);
  std::optional<ClTensor> temp_indices, indices;
  if (t.indices.defined()) {
    temp_indices.emplace(SortView(t.temp_indices, l, ext));
    indices.emplace(SortView(t.indices, l, l.length));
  }
  // CPU devices, rows along x: one work item per block of 2048 positions runs
  // stages 0-10 and, later, each stage's passes below distance 2048.
  const bool blocks = session->host_cpu() && axis0;
  const auto block_unit = [&](int stage) {
    auto unit = kernel.MakeSubKernel(session, "BitonicSort::rows",
                                     {"common.h", "sort.h", "bitonicsort_rows.cl"}, options,
                                     "bitonicsort_blocks");
    unit->SetArgs(src);
    if (indices) unit->SetArg(*temp_indices).SetArg(*indices);
    unit->SetArg(temp).SetArg(dst).SetArg(static_cast<int>(l.length)).SetArg(stage).SetArg(stages);
    unit->SetGlobal({static_cast<size_t>(ext / kNoLoopMaxKeys), outer}).SetLocal({1, 1});
  };
  if (blocks) block_unit(0);
  const int first_stage = blocks ? kBlockStages : 0;
  for (int stage = first_stage; stage <= stages; ++stage) {
    const int last_pass = blocks ? stage - kBlockStages : stage;
    for (int pass = 0; pass <= last_pass; ++pass) {
      const bool first = stage == 0, final = !blocks && stage == stages && pass == stage;
      auto unit = kernel.MakeSubKernel(
          session, "BitonicSort::loop", {"common.h", "sort.h", "bitonicsort.cl"},
          final ? last : options, prefix + (first ? "_init" : "_loop"));
      unit->SetArgs(src);
      if (indices) unit->SetArg(*temp_indices).SetArg(*indices);
      const unsigned post_shift = static_cast<unsigned>(stage - pass);
      unit->SetArg(temp)
          .SetArg(dst)
          .SetArg(post_shift)
          .SetArg(1u << post_shift)
          .SetArg(static_cast<unsigned>(stage))
          .SetGlobal(global);
    }
    if (blocks) block_unit(stage);
  }
}

}  // namespace

int BitonicStages(long length) {
  int stages = 0;
  while ((2L << stages) < length) ++stages;
  return stages;
}

long BitonicExtendedLength(long length) {
  return 2L << BitonicStages(length);
}

void VerifyBitonicSort(const std::string& op, const BitonicSortTensors& t) {
  CheckTensor(op, "input", t.input);
  CheckTensor(op, "output", t.out);
  const Shape& shape = t.input.shape();
  const int axis = GetRealAxis(t.axis, shape.ndim());
  if (!SortableType(t.input.dtype())) {
    throw std::invalid_argument(StrCat(op, ": input type ", t.input.dtype(), " is not supported"));
  }
  if (t.out.dtype() != t.input.dtype()) {
    throw std::invalid_argument(
        StrCat(op, ": output type ", t.out.dtype(), " must be the input's type ", t.input.dtype()));
  }
  CheckSameShape(op, "output", t.out, shape);
  CheckScratch(op, "temp",
               "temp tensor's axis_size should be 2^n, n = max(ceil(log2(input_axis_size/2)),0)",
               t.temp, shape, axis);
  if (t.temp.dtype() != t.input.dtype() && t.temp.dtype() != kFloat) {
    throw std::invalid_argument(StrCat(op, ": temp type ", t.temp.dtype(),
                                       " must be the input's type or DataType::kFloat"));
  }
  if (!t.indices.defined() && !t.temp_indices.defined()) return;
  CheckTensor(op, "indices", t.indices);
  CheckSameShape(op, "indices", t.indices, shape);
  CheckIndexType(op, "indices", t.indices.dtype());
  CheckScratch(op, "temp_indices",
               "temp_indices tensor's axis_size should be 2^n, n = "
               "max(ceil(log2(input_axis_size/2)),0)",
               t.temp_indices, shape, axis);
  CheckIndexType(op, "temp_indices", t.temp_indices.dtype());
}

void AppendBitonicSort(KernelImpl& kernel, const std::shared_ptr<SessionImpl>& session,
                       const BitonicSortTensors& t) {
  if (t.input.shape().size() == 0) return;
  const SortLayout l = LayoutOf(t.input.shape(), GetRealAxis(t.axis, t.input.shape().ndim()));
  const long ext = BitonicExtendedLength(l.length);
  const bool fits = ext <= kNoLoopMaxKeys &&
                    static_cast<size_t>(ext / 2) <= session->max_work_group_size() &&
                    session->local_mem_size() >= kNoLoopLocalBytes;
  if (session->host_cpu() && ext >= kRowsMinKeys && ext <= kNoLoopMaxKeys) {
    AppendRows(kernel, session, t, l);
  } else if (fits) {
    AppendNoLoop(kernel, session, t, l);
  } else {
    AppendLoops(kernel, session, t, l);
  }
}

BitonicSortKernel::BitonicSortKernel(const std::string& name, const BitonicSortOption& option,
                                     const TensorOption& input_opt, const Buffer& input,
                                     const TensorOption& temp_opt, Buffer& temp,
                                     const TensorOption& out_opt, Buffer& out)
    : KernelImpl(name) {
  tensors_.input = Tensor(input_opt, input, 0);
  tensors_.temp = Tensor(temp_opt, temp, 0);
  tensors_.out = Tensor(out_opt, out, 0);
  tensors_.axis = option.dim;
  tensors_.descending = option.descending;
}

BitonicSortKernel::BitonicSortKernel(const BitonicSortOption& option, const TensorOption& input_opt,
                                     const Buffer& input, const TensorOption& temp_opt,
                                     Buffer& temp, const TensorOption& out_opt, Buffer& out)
    : BitonicSortKernel("BitonicSort", option, input_opt, input, temp_opt, temp, out_opt, out) {}

bool BitonicSortKernel::Verify() const {
  VerifyBitonicSort(name(), tensors_);
  return true;
}

void BitonicSortKernel::Compile(std::shared_ptr<SessionImpl> session) {
  AppendBitonicSort(*this, session, tensors_);
}

BitonicSortWithIndicesKernel::BitonicSortWithIndicesKernel(
    const BitonicSortOption& option, const TensorOption& input_opt, const Buffer& input,
    const TensorOption& temp_opt, Buffer& temp, const TensorOption& out_opt, Buffer& out,
    const TensorOption& temp_indices_opt, Buffer& temp_indices, const TensorOption& indices_opt,
    Buffer& indices)
    : BitonicSortKernel("BitonicSortWithIndices", option, input_opt, input, temp_opt, temp, out_opt,
                        out) {
  tensors_.temp_indices = Tensor(temp_indices_opt, temp_indices, 0);
  tensors_.indices = Tensor(indices_opt, indices, 0);
}

NERVA_STATIC_REGISTER {
  auto& module = ClModule::singleton();
  module.AddKernel<BitonicSortKernel, const BitonicSortOption&, const TensorOption&, const Buffer&,
                   const TensorOption&, Buffer&, const TensorOption&, Buffer&>("BitonicSort");
  module.AddKernel<BitonicSortWithIndicesKernel, const BitonicSortOption&, const TensorOption&,
                   const Buffer&, const TensorOption&, Buffer&, const TensorOption&, Buffer&,
                   const TensorOption&, Buffer&, const TensorOption&, Buffer&>(
      "BitonicSortWithIndices");
};

}  // namespace cl
}  // namespace nerva
