#include "nerva/platform/cl/kernel/sort/topk.h"

#include <stdexcept>
#include <string>

#include "nerva/platform/cl/kernel/sort/bitonicsort.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

constexpr long kWholeRowMaxKeys = 2048;
constexpr long kSegmentBlock = 512;  // BLOCK_SIZE of the segment programs
// On devices that run a group's items as a loop, rows with k up to this are
// searched by one item each, without barriers.
constexpr long kSelectMaxK = 32;

}  // namespace

struct TopKKernel::RowLayout {
  long outer = 1, length = 1, inner = 1;
};

namespace {

TopKKernel::RowLayout LayoutOf(const Shape& shape, int axis) {
  TopKKernel::RowLayout l;
  for (int i = 0; i < static_cast<int>(shape.ndim()); ++i) {
    if (i < axis) l.outer *= shape[i];
    if (i > axis) l.inner *= shape[i];
  }
  l.length = shape[axis];
  return l;
}

ClTensor RowView(const Tensor& t, const TopKKernel::RowLayout& l, long n) {
  if (l.inner == 1) return ClTensor(t.Reshape({l.outer, n}));
  if (l.outer == 1) return ClTensor(t.Reshape({n, l.inner}));
  return ClTensor(t.Reshape({l.outer, n, l.inner}));
}

void CheckTensor(const std::string& op, const char* what, const Tensor& t) {
  if (!t.defined()) throw std::runtime_error(StrCat(op, ": ", what, " is empty"));
  if (!t.is_contiguous()) {
    throw std::runtime_error(StrCat(op, ": ", what, " ", t.shape(), " must be contiguous"));
  }
}

}  // namespace

TopKKernel::TopKKernel(const TopKOption& option, const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& values_opt, Buffer& values,
                       const TensorOption& indices_opt, Buffer& indices)
    : KernelImpl("TopK"),
      option_(option),
      input_(input_opt, input, 0),
      values_(values_opt, values, 0),
      indices_(indices_opt, indices, 0) {}

bool TopKKernel::Verify() const {
  CheckTensor(name(), "input", input_);
  CheckTensor(name(), "values", values_);
  CheckTensor(name(), "indices", indices_);
  const Shape& shape = input_.shape();
  const int axis = GetRealAxis(option_.dim, shape.ndim());
  const DataType dtype = input_.dtype();
  if (dtype != kFloat && dtype != kHalf && !TypeTraitsHelper::IsIntegral(dtype, true)) {
    throw std::invalid_argument(StrCat(name(), ": input type ", dtype, " is not supported"));
  }
  if (option_.k < 0 || option_.k > shape[axis]) {
    throw std::out_of_range(
        StrCat(name(), ": k ", option_.k, " is out of range for dimension ", axis, " of ", shape));
  }
  std::vector<long> expected = shape.sizes();
  expected[axis] = option_.k;
  if (values_.shape().sizes() != expected || indices_.shape().sizes() != expected) {
    throw std::runtime_error(StrCat(name(), ": values ", values_.shape(), " and indices ",
                                    indices_.shape(), " must both be ", expected));
  }
  if (values_.dtype() != dtype) {
    throw std::invalid_argument(
        StrCat(name(), ": values type ", values_.dtype(), " must be the input's type ", dtype));
  }
  if (indices_.dtype() != kInt64 && indices_.dtype() != kInt32) {
    throw std::invalid_argument(StrCat(name(), ": indices type ", indices_.dtype(),
                                       " is not supported (DataType::kInt64 or DataType::kInt32)"));
  }
  return true;
}

void TopKKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (input_.shape().size() == 0 || option_.k == 0) return;
  const RowLayout l = LayoutOf(input_.shape(), GetRealAxis(option_.dim, input_.shape().ndim()));
  const long ext = BitonicExtendedLength(l.length);
  const size_t max_group = session->max_work_group_size();
  BuildOption options;
  options.AddDefinition("IN_DTYPE", GetDataTypeCode(input_.dtype()))
      .AddDefinition("OUT_DTYPE", GetDataTypeCode(values_.dtype()))
      .AddDefinition("INDICES_DTYPE", GetDataTypeCode(indices_.dtype()))
      .AddOptionIf(option_.largest, "-DLARGEST")
      .AddOptionIf(l.inner > 1 && l.outer > 1, "-DIS_3D");
  size_t group = 0;
  int count = 0;  // num_stages, or the number of segments
  std::string kernel = l.inner == 1 ? "topk_axis0" : "topk_axis1";
  const bool select = session->host_cpu() && option_.k <= kSelectMaxK;
  if (select) {
    group = 1;
    options.AddOption("-DIS_SELECT").AddDefinitionAutoType("SELECT_K", kSelectMaxK);
    kernel += "_select";
  } else if (ext <= kWholeRowMaxKeys && static_cast<size_t>(ext / 2) <= max_group) {
    group = static_cast<size_t>(ext / 2);
    count = BitonicStages(l.length);
    options.AddDefinitionAutoType("LOCAL_SIZE0", static_cast<long>(group));
  } else if (option_.k <= kSegmentBlock && static_cast<size_t>(kSegmentBlock) <= max_group) {
    group = static_cast<size_t>(kSegmentBlock);
    count = static_cast<int>((l.length + 2 * kSegmentBlock - 1) / (2 * kSegmentBlock));
    options.AddOption("-DIS_SEGMENT").AddDefinitionAutoType("BLOCK_SIZE", kSegmentBlock);
    kernel += "_bitnoic_segment";
  } else {
    CompileFullSort(session, l);
    return;
  }
  const size_t outer = static_cast<size_t>(l.outer), inner = static_cast<size_t>(l.inner);
  auto unit = MakeSubKernel(session, ConcatenateStrings(name(), "bitonic"), {"common.h", "topk.cl"},
                            options, kernel);
  unit->SetArgs(RowView(input_, l, l.length), RowView(values_, l, option_.k),
                RowView(indices_, l, option_.k), count, static_cast<int>(l.length),
                static_cast<int>(option_.k));
  if (l.inner == 1) {
    unit->SetGlobal({group, outer}).SetLocal({group, 1});
  } else if (l.outer == 1) {
    unit->SetGlobal({inner, group}).SetLocal({1, group});
  } else {
    unit->SetGlobal({inner, group, outer}).SetLocal({1, group, 1});
  }
}

void TopKKernel::CompileFullSort(const std::shared_ptr<SessionImpl>& session, const RowLayout& l) {
  Session owner(session);
  std::vector<long> ext_sizes = input_.shape().sizes();
  const int axis = GetRealAxis(option_.dim, input_.shape().ndim());
  ext_sizes[axis] = BitonicExtendedLength(l.length);
  BitonicSortTensors sort;
  sort.input = input_;
  sort.out = owner.MakeTensor(input_.shape().sizes(), input_.dtype());
  sort.indices = owner.MakeTensor(input_.shape().sizes(), kInt64);
  sort.temp = owner.MakeTensor(ext_sizes, input_.dtype());
  sort.temp_indices = owner.MakeTensor(ext_sizes, kInt32);
  sort.axis = axis;
  sort.descending = option_.largest;
  AppendBitonicSort(*this, session, sort);
  scratch_ = {sort.out, sort.indices, sort.temp, sort.temp_indices};
  BuildOption options;
  options.AddOption("-DTOPK_HEAD")
      .AddDefinition("IN_DTYPE", GetDataTypeCode(input_.dtype()))
      .AddDefinition("OUT_DTYPE", GetDataTypeCode(values_.dtype()))
      .AddDefinition("INDICES_DTYPE", GetDataTypeCode(indices_.dtype()));
  const auto view = [&](const Tensor& t, long n) {
    return ClTensor(t.Reshape({l.outer, n, l.inner}));
  };
  MakeSubKernel(session, ConcatenateStrings(name(), "head"), {"common.h", "topk.cl"}, options,
                "topk_head")
      ->SetArgs(view(sort.out, l.length), view(sort.indices, l.length), view(values_, option_.k),
                view(indices_, option_.k))
      .SetGlobal({static_cast<size_t>(l.inner), static_cast<size_t>(option_.k),
                  static_cast<size_t>(l.outer)});
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<TopKKernel, const TopKOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&, const TensorOption&, Buffer&>("TopK");
};

}  // namespace cl
}  // namespace nerva
