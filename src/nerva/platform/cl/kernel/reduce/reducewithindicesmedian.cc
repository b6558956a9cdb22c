#include "nerva/platform/cl/kernel/reduce/reducewithindicesmedian.h"

#include <stdexcept>

#include "nerva/platform/cl/kernel/reduce/reduce_util.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

ReduceWithIndicesMedianKernel::ReduceWithIndicesMedianKernel(
    const ReduceWithIndicesMedianOption& option, const TensorOption& input, const Buffer& input_buf,
    const TensorOption& values, Buffer& values_buf, const TensorOption& indices,
    Buffer& indices_buf, const TensorOption& /*temp*/, Buffer& /*temp_buf*/,
    const TensorOption& /*temp_indices*/, Buffer& /*temp_indices_buf*/)
    : KernelImpl("ReduceWithIndicesMedian"),
      option_(option),
      input_(input, input_buf, 0),
      values_(values, values_buf, 0),
      indices_(indices, indices_buf, 0) {}

bool ReduceWithIndicesMedianKernel::Verify() const {
  CheckType(name(), "input", input_.dtype(), true);
  CheckType(name(), "values", values_.dtype(), true);
  CheckIndexType(name(), "indices", indices_.dtype());
  CheckContiguous(name(), "values", values_);
  CheckContiguous(name(), "indices", indices_);
  const auto& sizes = input_.shape().sizes();
  if (sizes.empty()) throw std::runtime_error(StrCat(name(), ": input has rank 0"));
  const int dim = NormalizeAxis(name(), option_.dim, sizes.size());
  const std::vector<long> expected = ReducedSizes(sizes, {dim}, option_.keepdim);
  const std::string what = StrCat("reducing ", input_.shape(), " along dim ", option_.dim);
  CheckSizes(name(), "values", values_, expected, what);
  CheckSizes(name(), "indices", indices_, expected, what);
  if (sizes[dim] == 0 && ElementCount(indices_) > 0) {
    throw std::runtime_error(
        StrCat(name(), ": cannot reduce input ", input_.shape(), " over an empty dim"));
  }
  return true;
}

void ReduceWithIndicesMedianKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (ElementCount(indices_) == 0) return;
  input_ = MakeContiguous(*this, session, input_);
  const auto& sizes = input_.shape().sizes();
  const int dim = NormalizeAxis(name(), option_.dim, sizes.size());
  const AxisFold fold = FoldAxes(sizes, dim, dim);
  BuildOption options;
  options.AddDefinition("DTYPE", GetDataTypeCode(input_.dtype()))
      .AddDefinition("DTYPE_OUT", GetDataTypeCode(indices_.dtype()))
      .AddDefinition("DTYPE_VALUES", GetDataTypeCode(values_.dtype()))
      .AddDefinitionAutoType("BLOCK_SIZE", kReduceBlockSize)
      .AddOptionIf(option_.ignore_nan, "-DIGNORE_NAN");
  const std::vector<long> kept = {fold.outer, fold.inner};
  MakeSubKernel(session, "ReduceWithIndicesMedian::median",
                {"common.h", "reduce.h", "reducewithindicesmedian.cl"}, options,
                "reduce_with_indices_median")
      ->SetArgs(ContiguousView(input_, {fold.outer, fold.reduced, fold.inner}),
                ContiguousView(values_, kept), ContiguousView(indices_, kept),
                static_cast<int>(fold.reduced))
      .SetGlobal({static_cast<size_t>(kReduceBlockSize), static_cast<size_t>(fold.inner),
                  static_cast<size_t>(fold.outer)})
      .SetLocal({static_cast<size_t>(kReduceBlockSize), 1, 1});
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<ReduceWithIndicesMedianKernel, const ReduceWithIndicesMedianOption&,
                 const TensorOption&, const Buffer&, const TensorOption&, Buffer&,
                 const TensorOption&, Buffer&, const TensorOption&, Buffer&, const TensorOption&,
                 Buffer&>("ReduceWithIndicesMedian");
};

}  // namespace cl
}  // namespace nerva
